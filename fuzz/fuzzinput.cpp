#include "fuzzinput.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

FuzzInput::FuzzInput(const uint8_t* data, size_t size)
    : data_(reinterpret_cast<const char*>(data)), size_(size) {}

uint8_t FuzzInput::byte() {
    return atEnd() ? 0 : static_cast<uint8_t>(data_[position_++]);
}

QByteArray FuzzInput::until(char separator) {
    if (atEnd()) {
        return {};
    }
    const void* found = std::memchr(data_ + position_, separator, size_ - position_);
    const size_t end = found ? static_cast<size_t>(static_cast<const char*>(found) - data_) : size_;
    QByteArray piece(data_ + position_, static_cast<qsizetype>(end - position_));
    position_ = found ? end + 1 : end;
    return piece;
}

QByteArray FuzzInput::rest() {
    QByteArray piece(data_ + position_, static_cast<qsizetype>(size_ - position_));
    position_ = size_;
    return piece;
}

void require(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "invariant broken: %s\n", what);
        std::abort();
    }
}
