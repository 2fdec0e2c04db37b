#include "updater.h"

#include "config.h"
#include "installsteps.h"
#include "jsondecoding.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QFuture>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QTimer>
#include <QtConcurrent/QtConcurrentRun>

#include <limits>

namespace {

constexpr int checkIntervalMs = 24 * 60 * 60 * 1000;
constexpr int manifestTimeoutMs = 60'000;
// What a transfer without a time-out of its own waits for further data, as a platform download does.
constexpr int downloadIdleTimeoutMs = 60'000;

const QString restartNote = QStringLiteral("Tallowind will restart to finish updating.");
const QString packageManagerNote = QStringLiteral("Update Tallowind with your package manager.");

// A piece that is an optional sign and decimal digits only, and fits, gives its value; any other gives 0.
qint64 versionNumber(QStringView piece) {
    const bool negative = piece.startsWith(QLatin1Char('-'));
    if (negative || piece.startsWith(QLatin1Char('+'))) {
        piece = piece.mid(1);
    }
    if (piece.isEmpty()) {
        return 0;
    }
    // Accumulated as a negative number, whose range reaches one further than the positive one.
    qint64 value = 0;
    constexpr qint64 lowest = std::numeric_limits<qint64>::min();
    for (const QChar c : piece) {
        if (c < QLatin1Char('0') || c > QLatin1Char('9')) {
            return 0;
        }
        const int digit = c.unicode() - '0';
        if (value < (lowest + digit) / 10) {
            return 0;
        }
        value = value * 10 - digit;
    }
    if (!negative) {
        return value == lowest ? 0 : -value;
    }
    return value;
}

QList<qint64> versionNumbers(const QString& version) {
    QList<qint64> numbers;
    for (const QStringView piece : QStringView(version).split(QLatin1Char('.'), Qt::SkipEmptyParts)) {
        numbers.append(versionNumber(piece));
    }
    return numbers;
}

QUrl manifestURL() {
    QUrl url = Config::serverURL();
    QString path = url.path();
    if (!path.endsWith(QLatin1Char('/'))) {
        path += QLatin1Char('/');
    }
    url.setPath(path + QStringLiteral("releases/latest.json"));
    return url;
}

// Statuses other than 2xx still carry a body, which is what the updater reads; only a failed transfer
// counts as one.
bool transferFailed(const QNetworkReply& reply) {
    return reply.error() != QNetworkReply::NoError && reply.error() < QNetworkReply::ContentAccessDenied;
}

}  // namespace

Result<Updater::Release> Updater::Release::decode(const QByteArray& body) {
    const auto object = JsonDecoding::object(body);
    if (!object) {
        return object.failure();
    }
    Release release;
    for (auto [key, field] : {std::pair{"version", &Release::version}, std::pair{"zip", &Release::zip},
                              std::pair{"sha256", &Release::sha256}}) {
        auto value = JsonDecoding::requiredString(object.value(), QLatin1String(key));
        if (!value) {
            return value.failure();
        }
        release.*field = std::move(value).value();
    }
    auto notes = JsonDecoding::optionalString(object.value(), QStringLiteral("notes"));
    if (!notes) {
        return notes.failure();
    }
    release.notes = std::move(notes).value();
    return release;
}

Updater::Host Updater::Host::current() {
    return {InstallSteps::bundleOf(QCoreApplication::applicationFilePath()),
            QCoreApplication::applicationPid()};
}

Updater::Updater(Host host, QObject* parent)
    : QObject(parent)
    , host_(std::move(host))
    , network_(std::make_unique<QNetworkAccessManager>())
    , quit_(&QCoreApplication::quit) {}

Updater::~Updater() = default;

Updater& Updater::shared() {
    static Updater* instance = new Updater;  // lives for the whole run, like the event loop
    return *instance;
}

void Updater::setDialogs(std::unique_ptr<UpdateDialogs> dialogs) {
    dialogs_ = std::move(dialogs);
}

void Updater::setQuitHandler(std::function<void()> quit) {
    quit_ = std::move(quit);
}

void Updater::startChecking() {
    check(false);
    timer_ = new QTimer(this);
    timer_->setInterval(checkIntervalMs);
    connect(timer_, &QTimer::timeout, this, [this] { check(false); });
    timer_->start();
}

void Updater::check(bool userInitiated) {
    QNetworkRequest request(manifestURL());
    request.setTransferTimeout(manifestTimeoutMs);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    QNetworkReply* reply = network_->get(request);
    connect(reply, &QNetworkReply::finished, this, [this, reply, userInitiated] {
        reply->deleteLater();
        const auto release = transferFailed(*reply) ? Result<Release>(Failure::other(reply->errorString()))
                                                    : Release::decode(reply->readAll());
        if (!release) {
            if (userInitiated) {
                show({QStringLiteral("Couldn't check for updates"), release.failure().description(), {}});
            }
            return;
        }
        const QString running = Config::appVersion();
        if (isNewer(release.value().version, running)) {
            promptToInstall(release.value());
        } else if (userInitiated) {
            show({QStringLiteral("You're up to date"),
                  QStringLiteral("Tallowind %1 is the latest version.").arg(running),
                  {}});
        }
    });
}

bool Updater::isNewer(const QString& candidate, const QString& current) {
    const QList<qint64> a = versionNumbers(candidate);
    const QList<qint64> b = versionNumbers(current);
    for (qsizetype i = 0; i < std::max(a.size(), b.size()); ++i) {
        const qint64 x = a.value(i, 0);
        const qint64 y = b.value(i, 0);
        if (x != y) {
            return x > y;
        }
    }
    return false;
}

void Updater::promptToInstall(const Release& release) {
    const bool canReplace = host_.bundle.has_value();
    QString text = canReplace ? restartNote : packageManagerNote;
    if (release.notes) {
        text = *release.notes + QStringLiteral("\n\n") + text;
    }
    const QString message = QStringLiteral("Tallowind %1 is available").arg(release.version);
    if (!canReplace) {
        show({message, text, {}});
        return;
    }
    if (show({message, text, {QStringLiteral("Install Update"), QStringLiteral("Later")}}) == 0) {
        QTimer::singleShot(0, this, [this, release] { install(release); });
    }
}

void Updater::install(const Release& release) {
    if (!host_.bundle) {
        failInstall(BackendError::server(packageManagerNote));
        return;
    }
    const QUrl link(release.zip, QUrl::StrictMode);
    if (release.zip.isEmpty() || !link.isValid()) {
        failInstall(BackendError::server(QStringLiteral("Bad update link.")));
        return;
    }
    QNetworkRequest request(Config::serverURL().resolved(link));
    request.setTransferTimeout(downloadIdleTimeoutMs);
    QNetworkReply* reply = network_->get(request);
    connect(reply, &QNetworkReply::finished, this, [this, reply, expected = release.sha256] {
        reply->deleteLater();
        if (transferFailed(*reply)) {
            failInstall(Failure::other(reply->errorString()));
            return;
        }
        // Unpacking a bundle takes a moment of disk work; the window stays responsive meanwhile.
        QtConcurrent::run(&InstallSteps::unpack, reply->readAll(), expected, QDir::tempPath())
            .then(this, [this](const Result<QString>& unpacked) {
                if (!unpacked) {
                    failInstall(unpacked.failure());
                    return;
                }
                finishInstall(unpacked.value());
            });
    });
}

void Updater::finishInstall(const QString& workDirectory) {
    const QString script = InstallSteps::swapScript(
        host_.processId, *host_.bundle, QDir(workDirectory).filePath(QStringLiteral("Tallowind.app")),
        workDirectory);
    QProcess shell;
    shell.setProgram(QStringLiteral("/bin/sh"));
    shell.setArguments({QStringLiteral("-c"), script});
    // Not the folder the program was started from, which may be the bundle that is about to go.
    shell.setWorkingDirectory(QFileInfo(workDirectory).path());
    if (!shell.startDetached()) {
        failInstall(Failure::other(shell.errorString()));
        return;
    }
    quit_();
}

void Updater::failInstall(const Failure& failure) {
    show({QStringLiteral("Update failed"), failure.description(), {}});
}

int Updater::show(const UpdateDialog& dialog) {
    return dialogs_ ? dialogs_->run(dialog) : -1;
}
