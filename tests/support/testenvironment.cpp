#include "testenvironment.h"

#include <QSignalSpy>

ScopedEnvironment::~ScopedEnvironment() {
    for (auto it = saved_.crbegin(); it != saved_.crend(); ++it) {
        if (it->second) {
            qputenv(it->first.constData(), *it->second);
        } else {
            qunsetenv(it->first.constData());
        }
    }
}

void ScopedEnvironment::set(const char* name, const QByteArray& value) {
    unset(name);
    qputenv(name, value);
}

void ScopedEnvironment::unset(const char* name) {
    saved_.append({name, qEnvironmentVariableIsSet(name) ? std::optional(qgetenv(name)) : std::nullopt});
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

ProcessResult runTallowind(const QStringList& arguments, int timeoutMs) {
    QProcess process;
    QSignalSpy finished(&process, &QProcess::finished);
    process.start(tallowindBinary(), arguments);
    if (!finished.wait(timeoutMs)) {
        process.kill();
        process.waitForFinished();
    }
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            process.readAllStandardOutput(), process.readAllStandardError()};
}
