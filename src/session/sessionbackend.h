#pragma once

#include "backendclient.h"
#include "backenderror.h"

#include <QString>

#include <functional>
#include <memory>
#include <optional>

// What a listening session needs from the backend: whether someone is signed in, speech-service tokens,
// usage reports and streamed answers. The program uses the backend client; tests use a scripted fake.
class SessionBackend {
public:
    using AnswerRequest = BackendClient::AnswerRequest;

    // A running answer request. Destroying it abandons the request: no handler runs after that.
    class Answer {
    public:
        virtual ~Answer() = default;
    };

    // Both run on the main thread: `piece` for each piece of text in order, then `ended` exactly once,
    // with the failure when the answer broke off.
    struct AnswerHandlers {
        std::function<void(const QString& piece)> piece;
        std::function<void(const std::optional<Failure>& failure)> ended;
    };

    virtual ~SessionBackend() = default;

    virtual bool isSignedIn() const = 0;
    virtual void speechToken(Completion<QString> done) = 0;
    // Fire and forget; failures stay inside.
    virtual void reportUsage(double seconds) = 0;
    // Sends the request at once.
    virtual std::unique_ptr<Answer> answer(const AnswerRequest& request, AnswerHandlers handlers) = 0;

    // The session's view of `client`, which must outlive it.
    static std::unique_ptr<SessionBackend> over(BackendClient& client);
};
