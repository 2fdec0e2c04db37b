#pragma once

#include "speechstream.h"

// A speech event as one readable word, so that a failed comparison shows what arrived.
inline QString eventText(const SpeechStream::Event& event) {
    using Kind = SpeechStream::Event::Kind;
    switch (event.kind) {
        case Kind::interim:
            return QStringLiteral("interim(%1)").arg(event.text);
        case Kind::final:
            return QStringLiteral("final(%1, %2)").arg(event.text, event.endOfUtterance ? "end" : "open");
        case Kind::failed:
            return QStringLiteral("failed(%1)").arg(event.text);
        case Kind::connected:
            return QStringLiteral("connected");
        case Kind::utteranceEnd:
            return QStringLiteral("utteranceEnd");
    }
    return {};
}
