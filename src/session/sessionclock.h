#pragma once

#include <chrono>
#include <functional>
#include <memory>

// Wall-clock time and repeating timers for the session, behind an interface so that tests can run the
// usage timer and the transcript window on a clock they move by hand.
class SessionClock {
public:
    using TimePoint = std::chrono::system_clock::time_point;

    // A running repeating timer; destroying it invalidates it, and no tick runs after that.
    class Timer {
    public:
        virtual ~Timer() = default;
    };

    virtual ~SessionClock() = default;

    virtual TimePoint now() const = 0;
    // `tick` runs on the main thread every `period`, the first time one period from now.
    virtual std::unique_ptr<Timer> repeat(std::chrono::milliseconds period, std::function<void()> tick) = 0;

    // The system's clock and the main event loop's timers.
    static std::unique_ptr<SessionClock> system();
};
