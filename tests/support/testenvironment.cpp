#include "testenvironment.h"

#include <QSignalSpy>
#include <QtGlobal>

ScopedEnvironment::~ScopedEnvironment() {
    for (auto it = saved_.crbegin(); it != saved_.crend(); ++it) {
        if (it->second) {
            qputenv(it->first.constData(), *it->second);
        } else {
            qunsetenv(it->first.constData());
        }
    }
}

void ScopedEnvironment::remember(const char* name) {
    saved_.append(
        {QByteArray(name), qEnvironmentVariableIsSet(name) ? std::optional(qgetenv(name)) : std::nullopt});
}

void ScopedEnvironment::set(const char* name, const QByteArray& value) {
    remember(name);
    qputenv(name, value);
}

void ScopedEnvironment::unset(const char* name) {
    remember(name);
    qunsetenv(name);
}

TestHome::TestHome() {
    environment_.set("XDG_CONFIG_HOME", configPath().toUtf8());
    environment_.set("XDG_DATA_HOME", (path() + QStringLiteral("/data")).toUtf8());
    environment_.set("TALLOWIND_TOKEN_STORE", "file");
    environment_.unset("TALLOWIND_TOKEN");
    environment_.unset("TALLOWIND_SERVER");
    environment_.unset("TALLOWIND_RESUME");
}

QString tallowindBinary() {
    return qEnvironmentVariable("TALLOWIND_BINARY");
}

ProcessResult runTallowind(const QStringList& arguments, int timeoutMs,
                           const QProcessEnvironment& environment) {
    QProcess process;
    process.setProcessEnvironment(environment);
    QSignalSpy finished(&process, &QProcess::finished);
    process.start(tallowindBinary(), arguments);
    if (!finished.wait(timeoutMs)) {
        process.kill();
        process.waitForFinished();
    }
    return {process.exitCode(), process.exitStatus() == QProcess::CrashExit, process.readAllStandardOutput(),
            process.readAllStandardError()};
}
