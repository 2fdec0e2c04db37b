#include "clock.h"

#include <array>
#include <cstdio>
#include <ctime>

namespace server {

std::string monthOf(TimePoint time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%04d-%02d", parts.tm_year + 1900, parts.tm_mon + 1);
    return text.data();
}

}  // namespace server
