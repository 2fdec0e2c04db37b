#include "cli.h"

#include "appsettings.h"
#include "backendclient.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>

#include <cstdio>
#include <memory>

namespace {

void writeOut(const QByteArray& bytes) {
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stdout);
    std::fflush(stdout);
}

void writeError(const QString& text) {
    const QByteArray bytes = text.toUtf8();
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stderr);
    std::fflush(stderr);
}

QString chosenResume(const AppSettings& settings) {
    if (qEnvironmentVariableIsSet("TALLOWIND_RESUME")) {
        QFile file(qEnvironmentVariable("TALLOWIND_RESUME"));
        if (file.open(QIODevice::ReadOnly)) {
            return QString::fromUtf8(file.readAll());
        }
    }
    return settings.resume();
}

void runTest(const CLI::Request& request, const CLI::Finished& finished) {
    switch (request.test) {
        case CLI::Test::answer:
            CLI::testAnswer(request.argument, finished);
            return;
        case CLI::Test::speech:
            CLI::testSTT(request.argument, finished);
            return;
    }
}

}  // namespace

namespace CLI {

std::optional<Request> requestedTest(const QStringList& arguments) {
    if (arguments.size() < 3) {
        return std::nullopt;
    }
    if (arguments[1] == QLatin1String("--test-answer")) {
        return Request{Test::answer, arguments[2]};
    }
    if (arguments[1] == QLatin1String("--test-stt")) {
        return Request{Test::speech, arguments[2]};
    }
    return std::nullopt;
}

std::optional<int> runIfRequested(int& argc, char** argv) {
    QStringList arguments;
    for (int i = 0; i < argc; ++i) {
        arguments.append(QString::fromLocal8Bit(argv[i]));
    }
    const auto request = requestedTest(arguments);
    if (!request) {
        return std::nullopt;
    }
    // No display is needed: a core application, no window, tray or hot key.
    QCoreApplication app(argc, argv);
    QMetaObject::invokeMethod(
        &app,
        [&request] {
            runTest(*request, [](const std::optional<Failure>& failure) {
                if (failure) {
                    writeError(QStringLiteral("error: ") + failure->description() + QLatin1Char('\n'));
                    QCoreApplication::exit(1);
                } else {
                    QCoreApplication::exit(0);
                }
            });
        },
        Qt::QueuedConnection);
    return QCoreApplication::exec();
}

void testAnswer(const QString& question, Finished finished) {
    AppSettings& settings = AppSettings::shared();
    BackendClient::AnswerRequest request{
        question, {}, chosenResume(settings), settings.jobDescription(), settings.extraInstructions()};
    auto clock = std::make_shared<QElapsedTimer>();
    clock->start();
    auto firstText = std::make_shared<std::optional<double>>();
    // The application owns the stream: it lives until the process ends.
    AnswerStream* raw = BackendClient::shared().answer(request).release();
    raw->setParent(QCoreApplication::instance());
    QObject::connect(raw, &AnswerStream::chunk, raw, [clock, firstText](const QString& text) {
        if (!*firstText) {
            *firstText = clock->nsecsElapsed() / 1e9;
        }
        writeOut(text.toUtf8());
    });
    QObject::connect(raw, &AnswerStream::finished, raw, [clock, firstText, finished] {
        const double done = clock->nsecsElapsed() / 1e9;
        writeOut(QStringLiteral("\n\n[first text after %1s, done after %2s]\n")
                     .arg(firstText->value_or(0.0), 0, 'f', 2)
                     .arg(done, 0, 'f', 2)
                     .toUtf8());
        finished(std::nullopt);
    });
    QObject::connect(raw, &AnswerStream::failed, raw,
                     [finished](const Failure& failure) { finished(failure); });
}

}  // namespace CLI
