#pragma once

#include <QByteArray>

#include <cstddef>
#include <cstdint>

// Reads one fuzz input front to back as the pieces a target needs. Once the bytes run out every read
// yields zero or nothing, so that every input maps to some case and no input is wasted.
class FuzzInput {
public:
    FuzzInput(const uint8_t* data, size_t size);

    bool atEnd() const { return position_ >= size_; }
    uint8_t byte();
    // The bytes up to the next `separator` (which is consumed but not returned), or all that is left.
    QByteArray until(char separator);
    QByteArray rest();

private:
    const char* data_;
    size_t size_;
    size_t position_ = 0;
};

// Stops the fuzzer with `what` when an invariant does not hold, so that the input is kept as a reproducer.
void require(bool condition, const char* what);
