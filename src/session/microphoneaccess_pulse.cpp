#include "microphoneaccess.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QThreadPool>

#include <pulse/context.h>
#include <pulse/introspect.h>
#include <pulse/mainloop.h>

namespace {

// An unreachable or wedged server must not leave the question open for long.
constexpr int answerBoundMs = 3000;

// Runs the loop until `done` says so or the bound passes; false on timeout or a broken loop.
template <typename Done>
bool iterateUntil(pa_mainloop* loop, const QDeadlineTimer& deadline, Done done) {
    while (!done()) {
        const qint64 left = deadline.remainingTime();
        if (left <= 0) {
            return false;
        }
        if (pa_mainloop_prepare(loop, static_cast<int>(left) * 1000) < 0 || pa_mainloop_poll(loop) < 0 ||
            pa_mainloop_dispatch(loop) < 0) {
            return false;
        }
    }
    return true;
}

}  // namespace

SoundServerDefaults querySoundServerDefaults() {
    const QDeadlineTimer deadline(answerBoundMs);
    pa_mainloop* loop = pa_mainloop_new();
    if (!loop) {
        return {};
    }
    pa_context* context = pa_context_new(pa_mainloop_get_api(loop), "Tallowind");
    SoundServerDefaults found;
    if (context && pa_context_connect(context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) >= 0) {
        const auto settled = [context] {
            const pa_context_state_t state = pa_context_get_state(context);
            return state == PA_CONTEXT_READY || !PA_CONTEXT_IS_GOOD(state);
        };
        if (iterateUntil(loop, deadline, settled) && pa_context_get_state(context) == PA_CONTEXT_READY) {
            SoundServerDefaults named;
            pa_operation* query = pa_context_get_server_info(
                context,
                [](pa_context*, const pa_server_info* info, void* user) {
                    auto* named = static_cast<SoundServerDefaults*>(user);
                    named->source = info && info->default_source_name && *info->default_source_name;
                    named->sink = info && info->default_sink_name && *info->default_sink_name;
                },
                &named);
            if (query) {
                const bool answered = iterateUntil(loop, deadline, [query] {
                    return pa_operation_get_state(query) != PA_OPERATION_RUNNING;
                });
                pa_operation_unref(query);
                if (answered) {
                    found = named;
                }
            }
        }
        pa_context_disconnect(context);
    }
    if (context) {
        pa_context_unref(context);
    }
    pa_mainloop_free(loop);
    return found;
}

namespace {

class PulseMicrophoneAccess : public MicrophoneAccess {
public:
    void request(std::function<void(bool granted)> answer) override {
        // The answer is dropped when this object is gone by the time it arrives.
        std::weak_ptr<int> alive = alive_;
        QThreadPool::globalInstance()->start([alive, answer = std::move(answer)] {
            const bool granted = querySoundServerDefaults().source;
            QMetaObject::invokeMethod(
                QCoreApplication::instance(),
                [alive, answer, granted] {
                    if (alive.lock()) {
                        answer(granted);
                    }
                },
                Qt::QueuedConnection);
        });
    }

private:
    std::shared_ptr<int> alive_ = std::make_shared<int>();
};

}  // namespace

std::unique_ptr<MicrophoneAccess> MicrophoneAccess::pulse() {
    return std::make_unique<PulseMicrophoneAccess>();
}
