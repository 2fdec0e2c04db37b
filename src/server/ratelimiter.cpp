#include "ratelimiter.h"

namespace server {

bool MemoryRateLimiter::allow(const std::string& key, TimePoint now) {
    std::lock_guard lock(mutex_);
    forgetIdle(now);
    auto& times = events_[key];
    while (!times.empty() && times.front() <= now - window_) {
        times.pop_front();
    }
    if (static_cast<int>(times.size()) >= count_) {
        return false;
    }
    times.push_back(now);
    return true;
}

// Keys whose last event left the window are dropped once per window, so a stream of one-off addresses
// does not grow the map without bound.
void MemoryRateLimiter::forgetIdle(TimePoint now) {
    if (now - lastSweep_ < window_) {
        return;
    }
    lastSweep_ = now;
    for (auto it = events_.begin(); it != events_.end();) {
        if (it->second.empty() || it->second.back() <= now - window_) {
            it = events_.erase(it);
        } else {
            ++it;
        }
    }
}

}  // namespace server
