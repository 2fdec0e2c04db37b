#include "terminationsignals.h"

#include <QSocketNotifier>

#include <sys/socket.h>
#include <unistd.h>
#include <csignal>

namespace {

// [0] is written by the handler, [1] read on the main thread. One pair for the process: signal
// dispositions are process-wide anyway.
int pipeEnds[2] = {-1, -1};

void onSignal(int number) {
    const char byte = static_cast<char>(number);
    // Nothing useful can be done about a failed write inside a signal handler.
    [[maybe_unused]] const auto written = ::write(pipeEnds[0], &byte, 1);
}

constexpr int handled[] = {SIGTERM, SIGINT, SIGHUP};

}  // namespace

TerminationSignals::TerminationSignals(QObject* parent) : QObject(parent) {
    if (pipeEnds[0] < 0 && ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pipeEnds) != 0) {
        return;
    }
    notifier_ = new QSocketNotifier(pipeEnds[1], QSocketNotifier::Read, this);
    connect(notifier_, &QSocketNotifier::activated, this, [this] {
        char byte = 0;
        if (::read(pipeEnds[1], &byte, 1) == 1) {
            emit received(byte);
        }
    });
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (const int number : handled) {
        sigaction(number, &action, nullptr);
    }
}

TerminationSignals::~TerminationSignals() {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    for (const int number : handled) {
        sigaction(number, &action, nullptr);
    }
}
