#include "onboardingfixtures.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QRegularExpression>
#include <QTimer>

DevServer::DevServer() {
    process_.setReadChannel(QProcess::StandardError);
    process_.start(qEnvironmentVariable("TALLOWIND_SERVER_BINARY"),
                   {QStringLiteral("--dev"), QStringLiteral("--listen"), QStringLiteral("127.0.0.1:0"),
                    QStringLiteral("--data"), data_.path()});
    const QRegularExpression listening(QStringLiteral("listening on (http://127\\.0\\.0\\.1:\\d+)"));
    const QDeadlineTimer deadline(10'000);
    QByteArray log;
    while (!url_.isValid() && process_.waitForReadyRead(int(deadline.remainingTime()))) {
        log += process_.readAllStandardError();
        url_ = QUrl(listening.match(QString::fromUtf8(log)).captured(1));
    }
}

DevServer::~DevServer() {
    process_.terminate();
    process_.waitForFinished(10'000);
}

void FakePermissions::check(std::function<void(Permissions::Grants)> answer) {
    QTimer::singleShot(0, QCoreApplication::instance(),
                       [grants = grants_, answer = std::move(answer)] { answer(*grants); });
}
