#pragma once

#include "speechstream.h"

#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>

#include <atomic>
#include <chrono>
#include <cstdint>

class QTimer;
class QWebSocket;

// One live connection to the streaming speech service for one audio source. It fetches a fresh token
// for every connection attempt, keeps an idle connection alive and reconnects by itself, with a delay
// of 1, 2, 4, 8, 16, 16, ... seconds, until it is stopped.
//
// Threads: create it, start and stop it on the main thread, where its events are delivered too. send()
// may come from any thread: it reads one atomic flag and hands the buffer to the main thread with a
// queued call. Everything else (socket, timers, retry state) is touched on the main thread only.
//
// clang-format off
//   state             entered by                              what holds
//   created           construction                            no socket, no timer
//   connecting        start(), or the end of a retry wait     token or handshake under way; audio dropped
//   open              the socket's connected signal           audio sent; `connected` reported
//   waiting to retry  a broken socket, a retryable token      `failed` reported; the retry timer runs
//                     failure
//   given up          a server or signed-out token failure    `failed` reported; idle until stop()/start()
//   stopped           stop()                                  no socket, no timer; nothing is reported
// clang-format on
class DeepgramStream : public QObject, public SpeechStream {
    Q_OBJECT

public:
    // The service's schedule, shortened in tests.
    struct Timing {
        // How long one second of reconnection delay lasts.
        std::chrono::milliseconds second{1000};
        std::chrono::milliseconds keepAlivePeriod{4000};
        // Keep-alive messages go out only when no audio was sent for longer than this.
        std::chrono::milliseconds idleThreshold{3000};
        // A handshake that has not completed by then counts as a broken connection.
        std::chrono::milliseconds handshakeTimeout{60000};
    };

    static constexpr std::uint64_t maximumRetryDelay = 16;

    DeepgramStream(QString label, TokenProvider tokenProvider, QObject* parent = nullptr);
    DeepgramStream(QString label, TokenProvider tokenProvider, Timing timing, QObject* parent = nullptr);
    ~DeepgramStream() override;

    // The streaming endpoint under the service's base address: its path, then the fixed query.
    static QUrl endpoint(const QUrl& base);

    QString label() const override { return label_; }
    // The handler must not destroy the stream from inside a call; deleteLater() is fine.
    void setOnEvent(EventHandler handler) override;
    void start() override;
    void send(const QByteArray& pcm) override;
    void stop() override;

    // Seconds to wait before the next reconnection attempt.
    std::uint64_t retryDelay() const { return retryDelay_; }

private:
    void connectToService();
    void tokenArrived(const Result<QString>& token);
    void openSocket(const QString& token);
    void retry();
    void retryWaitEnded();
    void socketOpened();
    void socketBroke();
    void keepAliveTick();
    void sendAudio(const QByteArray& pcm);
    void report(const SpeechStream::Event& event);
    // Detaches the current socket from the stream: nothing it does reaches the stream any more.
    QWebSocket* takeSocket();
    // Detaches the current socket and cuts its connection.
    void discardSocket();
    // Deletes a detached socket once its connection has ended, cutting it off after a grace period.
    void dispose(QWebSocket* socket);

    const QString label_;
    const TokenProvider tokenProvider_;
    const Timing timing_;
    EventHandler onEvent_;

    QPointer<QWebSocket> socket_;
    QTimer* keepAlive_;
    QTimer* retryTimer_;
    QTimer* handshakeTimer_;
    bool stopped_ = false;
    // Tells the answer to a token request whether it still belongs to the current attempt: stop() and
    // every new attempt move it on, so a token that arrives late opens nothing.
    std::uint64_t attempt_ = 0;
    std::uint64_t retryDelay_ = 1;

    // Shared with send() on the capture threads.
    std::atomic<bool> isOpen_{false};
    std::atomic<std::int64_t> lastAudio_;  // steady clock, nanoseconds
};
