#pragma once

#include "audioformat.h"

#include <QString>

#include <functional>
#include <memory>
#include <optional>

// The sound server as the captures need it: open one recording of a source, receive its buffers on a
// thread of the server's, learn when it ends. The real implementation talks to PulseAudio (which also
// fronts PipeWire); tests put an in-process fake in its place.
class AudioServer {
public:
    struct Request {
        enum class Source {
            defaultSource,   // the default input device, followed when the user picks another
            defaultMonitor,  // the monitor of the default output device: what the computer plays
        };

        Source source = Source::defaultSource;
        // The format to record in; absent means the source's own rate and channel count.
        std::optional<AudioFormat> format;
        // How many frames each delivered buffer should hold; the server treats it as a hint.
        int framesPerBuffer = 0;
    };

    struct Failure {
        enum class Kind {
            noServer,  // no server answers
            noDevice,  // the server has no such source (no default input, no default output)
            server,    // the server refused or ended the recording; `message` is its text
        };

        Kind kind = Kind::server;
        QString message;
    };

    // Every handler runs on the recording's own thread, one call at a time (only a recording that cannot
    // get a thread at all reports its failure from inside record()).
    struct Handlers {
        std::function<void()> started;
        std::function<void(const AudioBuffer&)> audio;
        // The recording could not start, or the server ended it; nothing more follows.
        std::function<void(const Failure&)> failed;
    };

    // A recording that is starting or running. Destroying it ends it: once the destructor returns no
    // handler runs any more. It must not be destroyed from inside one of its own handlers.
    class Recording {
    public:
        virtual ~Recording() = default;
    };

    virtual ~AudioServer() = default;

    // Starts opening a recording; the outcome arrives through `handlers` (started, or failed).
    virtual std::unique_ptr<Recording> record(const Request& request, Handlers handlers) = 0;

    // The server of this desktop session.
    static std::shared_ptr<AudioServer> pulse();
};
