#pragma once

#include <QProcess>
#include <QTemporaryDir>

#include <optional>

// Sets or unsets environment variables for the lifetime of the object and restores them afterwards.
class ScopedEnvironment {
public:
    ~ScopedEnvironment();

    void set(const char* name, const QByteArray& value);
    void unset(const char* name);

private:
    QList<QPair<QByteArray, std::optional<QByteArray>>> saved_;
};

// A private configuration and data home for one test: settings and the token file land in a temporary
// folder, the file token store is chosen unless a test asks otherwise, and no token comes from outside.
class TestHome {
public:
    TestHome();
    QString path() const { return dir_.path(); }
    QString configPath() const { return dir_.path() + QStringLiteral("/config"); }
    ScopedEnvironment& environment() { return environment_; }

private:
    QTemporaryDir dir_;
    ScopedEnvironment environment_;
};

// The program under test, as built beside the tests.
inline QString tallowindBinary() {
    return qEnvironmentVariable("TALLOWIND_BINARY");
}

struct ProcessResult {
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

// Runs the program with the current environment, spinning the event loop (so that servers in this
// process keep answering) until it ends or `timeoutMs` passes.
ProcessResult runTallowind(const QStringList& arguments, int timeoutMs = 20'000);
