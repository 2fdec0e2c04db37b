#include "sessionclock.h"

#include <QTimer>

namespace {

class EventLoopTimer : public SessionClock::Timer {
public:
    EventLoopTimer(std::chrono::milliseconds period, std::function<void()> tick) {
        timer_.setTimerType(Qt::CoarseTimer);
        QObject::connect(&timer_, &QTimer::timeout, std::move(tick));
        timer_.start(period);
    }

private:
    QTimer timer_;
};

class SystemClock : public SessionClock {
public:
    TimePoint now() const override { return std::chrono::system_clock::now(); }

    std::unique_ptr<Timer> repeat(std::chrono::milliseconds period, std::function<void()> tick) override {
        return std::make_unique<EventLoopTimer>(period, std::move(tick));
    }
};

}  // namespace

std::unique_ptr<SessionClock> SessionClock::system() {
    return std::make_unique<SystemClock>();
}
