#include "streamlines.h"

#include <utility>

namespace server {

std::vector<std::string> StreamLines::feed(std::string_view bytes) {
    std::vector<std::string> lines;
    for (const char c : bytes) {
        // The "\n" of a "\r\n" split across two reads must not end a second, empty line.
        if (afterCarriageReturn_ && c == '\n') {
            afterCarriageReturn_ = false;
            continue;
        }
        afterCarriageReturn_ = c == '\r';
        if (c == '\n' || c == '\r') {
            lines.push_back(std::exchange(pending_, {}));
        } else {
            pending_ += c;
        }
    }
    return lines;
}

std::string StreamLines::finish() {
    afterCarriageReturn_ = false;
    return std::exchange(pending_, {});
}

}  // namespace server
