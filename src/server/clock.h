#pragma once

#include <chrono>
#include <functional>

namespace server {

using TimePoint = std::chrono::system_clock::time_point;

// Everything that depends on the time of day (code expiry, rate windows, the month that usage counts
// towards) asks one of these, so tests can move time instead of waiting for it.
using Clock = std::function<TimePoint()>;

inline Clock systemClock() {
    return [] { return std::chrono::system_clock::now(); };
}

// The calendar month of `time` in UTC, as "YYYY-MM": the period that listening minutes count towards.
std::string monthOf(TimePoint time);

}  // namespace server
