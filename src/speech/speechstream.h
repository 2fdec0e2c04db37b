#pragma once

#include "backenderror.h"

#include <QByteArray>
#include <QString>

#include <functional>

// One live transcription connection for one audio source, as its owner sees it. The session engine
// holds streams through this interface so that tests can drive it with scripted events.
class SpeechStream {
public:
    struct Event {
        enum class Kind { interim, final, failed, connected, utteranceEnd };

        Kind kind = Kind::connected;
        QString text;  // interim and final text; the message of failed
        bool endOfUtterance = false;  // final only

        static Event interim(QString text) { return {Kind::interim, std::move(text), false}; }
        static Event final(QString text, bool endOfUtterance) { return {Kind::final, std::move(text), endOfUtterance}; }
        static Event failed(QString message) { return {Kind::failed, std::move(message), false}; }
        static Event connected() { return {Kind::connected, {}, false}; }
        static Event utteranceEnd() { return {Kind::utteranceEnd, {}, false}; }

        friend bool operator==(const Event&, const Event&) = default;
    };

    // Called on the main thread; without a handler, events are dropped.
    using EventHandler = std::function<void(const Event&)>;

    virtual ~SpeechStream() = default;

    virtual QString label() const = 0;
    // Set once, before start().
    virtual void setOnEvent(EventHandler handler) = 0;
    virtual void start() = 0;
    // One buffer of 16 kHz mono 16-bit PCM. Safe from any thread; never blocks on the network.
    virtual void send(const QByteArray& pcm) = 0;
    virtual void stop() = 0;
};

// Fetches a fresh speech-service token for each connection attempt; completes on the main thread.
using TokenProvider = std::function<void(Completion<QString>)>;
