#pragma once

#include "answerlines.h"
#include "backenderror.h"
#include "transcriptline.h"

#include <QJsonObject>
#include <QList>
#include <QNetworkRequest>
#include <QObject>
#include <QPointer>

#include <memory>
#include <optional>

// The signed-in account as the server describes it: listening minutes this month.
struct Account {
    QString email;
    qint64 minutesUsed = 0;
    qint64 minutesLimit = 0;

    friend bool operator==(const Account&, const Account&) = default;
};

class QNetworkAccessManager;
class QNetworkReply;
class AnswerStream;

// The program's client of its own backend: JSON requests with the common headers, the errors they map
// to, and the endpoints built on them. It keeps no state beyond its network manager; the token lives in
// the token store. Lives on the main thread.
class BackendClient : public QObject {
    Q_OBJECT

public:
    struct AnswerRequest {
        QString question;
        QList<TranscriptLine> transcript;
        QString resume;
        QString jobDescription;
        QString extraInstructions;

        QJsonObject toJson() const;
    };

    explicit BackendClient(QObject* parent = nullptr);
    ~BackendClient() override;

    static BackendClient& shared();

    // The request for `path` under the server address with the common headers; the method travels in
    // the request's custom-verb attribute. Fails with signedOut when authentication is asked for and no
    // token is at hand.
    static Result<QNetworkRequest> makeRequest(const QByteArray& method, const QString& path,
                                               bool authenticated);

    // One whole request-and-response exchange; `done` receives the response body.
    void request(const QByteArray& method, const QString& path, const std::optional<QJsonObject>& body,
                 bool authenticated, Completion<QByteArray> done);

    // Turns a response into its error, if it is one. `status` is absent when the reply is not an HTTP
    // response; `errorBody` is absent when the body could not be read. A 401 deletes the stored token.
    static std::optional<BackendError> check(std::optional<int> status,
                                             const std::optional<QByteArray>& errorBody);

    // Asks the server to e-mail a sign-in code; yields the development code when the server sends one.
    void startLogin(const QString& email, Completion<std::optional<QString>> done);
    // Exchanges the code for a session token and stores it; yields the verified address.
    void verifyLogin(const QString& email, const QString& code, Completion<QString> done);
    // Tells the server, then forgets the token whatever the server said. Never fails.
    void signOut(Completion<Done> done = {});

    void account(Completion<Account> done);
    // A fresh short-lived credential of the speech service; the client keeps no copy.
    void speechToken(Completion<QString> done);
    // Fire and forget: below one second (or not a number) nothing is sent, and every failure is swallowed.
    void reportUsage(double seconds);

    // The replies' readers, one per endpoint, kept apart from the requests so that any body can be fed
    // to them directly.
    static Result<Account> decodeAccount(const QByteArray& body);
    // The development code of /auth/start; an unreadable reply, or one without a code, means none.
    static std::optional<QString> decodeLoginCode(const QByteArray& body);
    struct SignIn {
        QString token;
        QString email;
        friend bool operator==(const SignIn&, const SignIn&) = default;
    };
    static Result<SignIn> decodeSignIn(const QByteArray& body);
    static Result<QString> decodeSpeechToken(const QByteArray& body);

    // Starts the request at once; the stream reports its pieces, then finishes or fails exactly once.
    // Destroying or cancelling the stream abandons the request.
    std::unique_ptr<AnswerStream> answer(const AnswerRequest& request);

    QNetworkAccessManager& network() { return *network_; }

private:
    std::unique_ptr<QNetworkAccessManager> network_;
};

// A streamed answer: pieces of text in the order the server wrote them, then finished() or failed().
// Nothing is emitted after either, nor after cancel().
class AnswerStream : public QObject {
    Q_OBJECT

public:
    ~AnswerStream() override;

    void cancel();
    bool isActive() const { return !ended_; }

signals:
    void chunk(const QString& text);
    void finished();
    void failed(const Failure& failure);

private:
    friend class BackendClient;
    AnswerStream(QNetworkAccessManager& network, const Result<QNetworkRequest>& request,
                 const QByteArray& body);

    void readAvailable();
    void replyFinished();
    // Emits the piece, or ends the stream on an error line; false once the stream has ended, also
    // when a slot connected to chunk() ended or destroyed it.
    bool deliver(const QByteArray& line);
    void end(const std::optional<Failure>& failure);
    void detachReply();

    QPointer<QNetworkReply> reply_;
    std::optional<int> status_;
    LineSplitter splitter_;
    bool ended_ = false;
};
