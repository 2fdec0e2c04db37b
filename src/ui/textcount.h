#pragma once

#include <QString>

namespace TextCount {

// The number of characters a reader sees: extended grapheme clusters, so an accented letter written
// with a combining mark, a flag or a family emoji joined by zero-width joiners each count once, however
// many UTF-16 units or bytes they take.
qsizetype characters(const QString& text);

}  // namespace TextCount
