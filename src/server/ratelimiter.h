#pragma once

#include "clock.h"

#include <chrono>
#include <deque>
#include <map>
#include <mutex>
#include <string>

namespace server {

// At most `count` events per key in any sliding window of `window`. Kept in memory: a restart forgets
// the history, which only ever lets a few more requests through.
class RateLimiter {
public:
    RateLimiter(int count, std::chrono::seconds window) : count_(count), window_(window) {}

    // Records the event and returns true when it is within the limit; a refused event is not recorded,
    // so a client that keeps retrying is let through again once its window has passed.
    bool allow(const std::string& key, TimePoint now);

private:
    void forgetIdle(TimePoint now);

    int count_;
    std::chrono::seconds window_;
    std::mutex mutex_;
    std::map<std::string, std::deque<TimePoint>> events_;
    TimePoint lastSweep_{};
};

}  // namespace server
