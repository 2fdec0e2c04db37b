#include "onboardingfixtures.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QRegularExpression>
#include <QTimer>

namespace {

constexpr int startBoundMs = 10'000;

}  // namespace

DevServer::DevServer() {
    process_.setReadChannel(QProcess::StandardError);
    process_.start(qEnvironmentVariable("TALLOWIND_SERVER_BINARY"),
                   {QStringLiteral("--dev"), QStringLiteral("--listen"), QStringLiteral("127.0.0.1:0"),
                    QStringLiteral("--data"), data_.path()});
    const QRegularExpression listening(QStringLiteral("listening on (http://127\\.0\\.0\\.1:\\d+)"));
    const QDeadlineTimer deadline(startBoundMs);
    QByteArray log;
    while (process_.waitForReadyRead(static_cast<int>(deadline.remainingTime()))) {
        log += process_.readAllStandardError();
        const QRegularExpressionMatch match = listening.match(QString::fromUtf8(log));
        if (match.hasMatch()) {
            url_ = QUrl(match.captured(1));
            return;
        }
    }
}

DevServer::~DevServer() {
    process_.terminate();
    if (!process_.waitForFinished(startBoundMs)) {
        process_.kill();
        process_.waitForFinished();
    }
}

void FakePermissions::check(std::function<void(Permissions::Grants)> answer) {
    // Like the sound server, the answer comes later on the main thread.
    QTimer::singleShot(0, QCoreApplication::instance(),
                       [grants = grants_, answer = std::move(answer)] { answer(*grants); });
}
