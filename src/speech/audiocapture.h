#pragma once

#include "backenderror.h"

#include <QByteArray>

#include <functional>

// One captured audio source (the microphone, or what the computer plays), delivering converted
// 16 kHz mono 16-bit PCM. The session engine holds captures through this interface so that tests can
// feed it PCM without an audio server.
class AudioCapture {
public:
    // Called on the capture's own thread, one buffer at a time; must not block.
    using AudioHandler = std::function<void(const QByteArray& pcm)>;
    // Called on the main thread when the audio server ends the capture by itself; never after stop().
    using StopHandler = std::function<void(const Failure& error)>;

    virtual ~AudioCapture() = default;

    // Set before start(); without a handler the data is dropped.
    virtual void setOnAudio(AudioHandler handler) = 0;
    virtual void setOnStop(StopHandler handler) = 0;
    // Completes on the main thread, never before start() returns: with Done once audio flows, or with the
    // failure ("No microphone found.", "No display found to capture audio from.", or the server's own
    // error), in which case nothing is left running.
    virtual void start(Completion<Done> done) = 0;
    // Returns at once; no onAudio and no onStop arrives after it returns.
    virtual void stop() = 0;
};
