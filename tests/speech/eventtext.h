#pragma once

#include "speechstream.h"

// A speech event as one readable word, so that a failed comparison shows what arrived.
inline QString eventText(const SpeechStream::Event& event) {
    static const char* const kinds[] = {"interim", "final", "failed", "connected", "utteranceEnd"};
    return QStringLiteral("%1(%2%3)")
        .arg(QLatin1String(kinds[int(event.kind)]), event.text,
             QLatin1String(event.endOfUtterance ? ", end" : ""));
}
