#pragma once

#include "speechstream.h"

#include <QString>

#include <optional>

// What one text message from the speech service means to the stream's owner: interim or final text
// from a "Results" message, the end of an utterance from an "UtteranceEnd" message, or nothing at all
// for every other message, including text that is not a JSON object.
std::optional<SpeechStream::Event> parseRecognitionMessage(const QString& message);
