#pragma once

#include "clock.h"

#include <chrono>
#include <deque>
#include <map>
#include <mutex>
#include <string>

namespace server {

// At most a fixed number of events per key in any sliding window. A refused event is not recorded, so a
// client that keeps retrying is let through again once its window has passed.
class RateLimiter {
public:
    virtual ~RateLimiter() = default;

    // Records the event and returns true when it is within the limit.
    virtual bool allow(const std::string& key, TimePoint now) = 0;
};

// Kept in memory, for a server that is alone with its data: a restart forgets the history, which only
// ever lets a few more requests through.
class MemoryRateLimiter final : public RateLimiter {
public:
    MemoryRateLimiter(int count, std::chrono::seconds window) : count_(count), window_(window) {}

    bool allow(const std::string& key, TimePoint now) override;

private:
    void forgetIdle(TimePoint now);

    int count_;
    std::chrono::seconds window_;
    std::mutex mutex_;
    std::map<std::string, std::deque<TimePoint>> events_;
    TimePoint lastSweep_{};
};

}  // namespace server
