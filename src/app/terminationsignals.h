#pragma once

#include <QObject>

class QSocketNotifier;

// Turns SIGTERM, SIGINT and SIGHUP (a terminal closed, the desktop session logging out, `kill`) into a
// signal on the main thread, so that the program ends through its normal quit path: the session stopped,
// the last usage reported. A signal handler may do almost nothing itself, so it only writes a byte to a
// socket pair that the event loop watches.
class TerminationSignals : public QObject {
    Q_OBJECT

public:
    explicit TerminationSignals(QObject* parent = nullptr);
    ~TerminationSignals() override;

signals:
    void received(int signalNumber);

private:
    QSocketNotifier* notifier_ = nullptr;
};
