#include "deepgramstream.h"

#include "config.h"
#include "recognitionmessage.h"

#include <QNetworkRequest>
#include <QTimer>
#include <QWebSocket>

#include <algorithm>
#include <utility>

namespace {

const QLatin1String listenPath("/v1/listen");
const QLatin1String listenQuery(
    "model=nova-3&encoding=linear16&sample_rate=16000&channels=1&interim_results=true&smart_format=true"
    "&punctuate=true&endpointing=300&utterance_end_ms=1000&vad_events=true");
const QLatin1String keepAliveMessage(R"({"type":"KeepAlive"})");
const QLatin1String closeStreamMessage(R"({"type":"CloseStream"})");
const QString reconnectingNotice = QStringLiteral(u"Reconnecting to speech service\u2026");

// A socket the stream let go of gets this long to finish its closing handshake before it is cut off.
constexpr int closingGraceMs = 5000;

std::int64_t steadyNow() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

DeepgramStream::DeepgramStream(QString label, TokenProvider tokenProvider, QObject* parent)
    : DeepgramStream(std::move(label), std::move(tokenProvider), Timing(), parent) {}

DeepgramStream::DeepgramStream(QString label, TokenProvider tokenProvider, Timing timing, QObject* parent)
    : QObject(parent)
    , label_(std::move(label))
    , tokenProvider_(std::move(tokenProvider))
    , timing_(timing)
    , keepAlive_(new QTimer(this))
    , retryTimer_(new QTimer(this))
    , handshakeTimer_(new QTimer(this))
    , lastAudio_(steadyNow()) {
    keepAlive_->setInterval(timing_.keepAlivePeriod);
    connect(keepAlive_, &QTimer::timeout, this, &DeepgramStream::keepAliveTick);
    retryTimer_->setSingleShot(true);
    retryTimer_->setTimerType(Qt::PreciseTimer);
    connect(retryTimer_, &QTimer::timeout, this, &DeepgramStream::retryWaitEnded);
    handshakeTimer_->setSingleShot(true);
    connect(handshakeTimer_, &QTimer::timeout, this, &DeepgramStream::socketBroke);
}

DeepgramStream::~DeepgramStream() = default;

QUrl DeepgramStream::endpoint(const QUrl& base) {
    QUrl url = base;
    QString path = base.path();
    while (path.endsWith(QLatin1Char('/'))) {
        path.chop(1);
    }
    url.setPath(path + listenPath);
    url.setQuery(listenQuery);
    return url;
}

void DeepgramStream::setOnEvent(EventHandler handler) {
    onEvent_ = std::move(handler);
}

void DeepgramStream::start() {
    stopped_ = false;
    retryTimer_->stop();
    connectToService();
}

void DeepgramStream::send(const QByteArray& pcm) {
    if (!isOpen_.load()) {
        return;
    }
    lastAudio_.store(steadyNow());
    // The socket belongs to the main thread; the capture thread only queues the buffer (shared, not copied).
    QMetaObject::invokeMethod(
        this, [this, pcm] { sendAudio(pcm); }, Qt::QueuedConnection);
}

void DeepgramStream::sendAudio(const QByteArray& pcm) {
    if (socket_ && isOpen_.load()) {
        socket_->sendBinaryMessage(pcm);
    }
}

void DeepgramStream::stop() {
    stopped_ = true;
    ++attempt_;
    keepAlive_->stop();
    handshakeTimer_->stop();
    if (retryTimer_->isActive()) {
        // The wait counts as over: its doubling stands, the attempt after it is not made.
        retryTimer_->stop();
        retryDelay_ = std::min(retryDelay_ * 2, maximumRetryDelay);
    }
    isOpen_.store(false);
    // Detached first, so that the closing socket reports nothing.
    if (QWebSocket* socket = takeSocket()) {
        if (socket->state() == QAbstractSocket::ConnectedState) {
            // CloseStream lets the service send its last results; close() flushes both frames to the
            // system at once, so they go out even when the process ends right after.
            socket->sendTextMessage(closeStreamMessage);
            socket->close(QWebSocketProtocol::CloseCodeNormal);
        } else {
            socket->abort();
        }
        dispose(socket);
    }
}

void DeepgramStream::connectToService() {
    if (stopped_) {
        return;
    }
    const std::uint64_t attempt = ++attempt_;
    QPointer<DeepgramStream> self(this);
    tokenProvider_([self, attempt](const Result<QString>& token) {
        // Gone, stopped or overtaken by a newer attempt while the token was on its way.
        if (!self || self->attempt_ != attempt || self->stopped_) {
            return;
        }
        self->tokenArrived(token);
    });
}

void DeepgramStream::tokenArrived(const Result<QString>& token) {
    if (token) {
        openSocket(token.value());
        return;
    }
    const Failure& failure = token.failure();
    QPointer<DeepgramStream> self(this);
    report(Event::failed(failure.description()));
    if (!self) {
        return;
    }
    // The server refused or nobody is signed in: asking again cannot help until the owner starts over.
    if (failure.is(BackendError::Kind::server) || failure.is(BackendError::Kind::signedOut)) {
        return;
    }
    retry();
}

void DeepgramStream::openSocket(const QString& token) {
    discardSocket();
    QNetworkRequest request(endpoint(Config::speechURL()));
    request.setRawHeader("Authorization", "Bearer " + token.toUtf8());

    auto* socket = new QWebSocket(QString(), QWebSocketProtocol::VersionLatest, this);
    socket_ = socket;
    // Each handler first checks that its socket is still the stream's: a replaced socket falls silent.
    connect(socket, &QWebSocket::connected, this, [this, socket] {
        if (socket == socket_) {
            socketOpened();
        }
    });
    connect(socket, &QWebSocket::textMessageReceived, this, [this, socket](const QString& message) {
        if (socket != socket_) {
            return;
        }
        if (auto event = parseRecognitionMessage(message)) {
            report(*event);
        }
    });
    // Qt 6.4 reports some failures only by disconnected (a refused connection, before its error) and
    // others only by error (an unsupported scheme); whichever comes first ends the socket, and the
    // second finds it released.
    connect(socket, &QWebSocket::disconnected, this, [this, socket] {
        if (socket == socket_) {
            socketBroke();
        }
    });
    connect(socket, qOverload<QAbstractSocket::SocketError>(&QWebSocket::error), this, [this, socket] {
        if (socket == socket_) {
            socketBroke();
        }
    });
    handshakeTimer_->start(timing_.handshakeTimeout);
    keepAlive_->start();
    socket->open(request);
}

void DeepgramStream::socketOpened() {
    handshakeTimer_->stop();
    isOpen_.store(true);
    retryDelay_ = 1;
    report(Event::connected());
}

void DeepgramStream::socketBroke() {
    handshakeTimer_->stop();
    isOpen_.store(false);
    discardSocket();
    if (stopped_) {
        return;
    }
    QPointer<DeepgramStream> self(this);
    report(Event::failed(reconnectingNotice));
    if (self) {
        retry();
    }
}

void DeepgramStream::retry() {
    if (stopped_) {
        return;
    }
    retryTimer_->start(std::chrono::milliseconds(timing_.second * retryDelay_));
}

void DeepgramStream::retryWaitEnded() {
    retryDelay_ = std::min(retryDelay_ * 2, maximumRetryDelay);
    connectToService();
}

void DeepgramStream::keepAliveTick() {
    const auto idle = std::chrono::nanoseconds(steadyNow() - lastAudio_.load());
    if (socket_ && isOpen_.load() && idle > timing_.idleThreshold) {
        socket_->sendTextMessage(keepAliveMessage);
    }
}

void DeepgramStream::report(const Event& event) {
    if (onEvent_) {
        // A copy: the handler may replace itself while it runs.
        const EventHandler handler = onEvent_;
        handler(event);
    }
}

QWebSocket* DeepgramStream::takeSocket() {
    QWebSocket* socket = socket_;
    socket_ = nullptr;
    if (socket) {
        disconnect(socket, nullptr, this, nullptr);
    }
    return socket;
}

void DeepgramStream::discardSocket() {
    if (QWebSocket* socket = takeSocket()) {
        socket->abort();
        dispose(socket);
    }
}

void DeepgramStream::dispose(QWebSocket* socket) {
    if (socket->state() == QAbstractSocket::UnconnectedState) {
        socket->deleteLater();
        return;
    }
    connect(socket, &QWebSocket::disconnected, socket, &QObject::deleteLater);
    QTimer::singleShot(closingGraceMs, socket, &QWebSocket::abort);
}
