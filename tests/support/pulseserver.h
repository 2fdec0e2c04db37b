#pragma once

#include <QProcess>
#include <QTemporaryDir>

// A PulseAudio server of the test's own, in a private folder, for the cases that must not disturb the
// shared one: killing it, removing its devices. It has the same devices as the server of the test command:
// the null sink "speakers" as default output and "microphone", a remapped monitor of the null sink
// "micfeed", as default input. With `devices` false it has none at all.
class PulseServer {
public:
    explicit PulseServer(bool devices = true);
    ~PulseServer() { kill(); }

    // False when the server did not come up within a few seconds.
    bool running() const { return running_; }
    // The value for PULSE_SERVER.
    QString address() const { return QStringLiteral("unix:") + dir_.filePath(QStringLiteral("socket")); }
    bool pactl(const QStringList& arguments) const;
    void kill();

private:
    QTemporaryDir dir_;
    QProcess process_;
    bool running_ = false;
};

// Plays `command`'s output (raw WAV on standard output) into `sink` of the server in PULSE_SERVER, at the
// pace of the sound card, and returns once it has been played.
bool play(const QString& command, const QString& sink);
