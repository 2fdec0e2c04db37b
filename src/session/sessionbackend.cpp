#include "sessionbackend.h"

#include "keychain.h"

namespace {

class StreamedAnswer : public SessionBackend::Answer {
public:
    StreamedAnswer(std::unique_ptr<AnswerStream> stream, SessionBackend::AnswerHandlers handlers)
        : stream_(std::move(stream)) {
        AnswerStream* source = stream_.get();
        QObject::connect(source, &AnswerStream::chunk, source, handlers.piece);
        QObject::connect(source, &AnswerStream::finished, source,
                         [ended = handlers.ended] { ended(std::nullopt); });
        QObject::connect(source, &AnswerStream::failed, source,
                         [ended = handlers.ended](const Failure& failure) { ended(failure); });
    }

private:
    std::unique_ptr<AnswerStream> stream_;
};

class ClientBackend : public SessionBackend {
public:
    explicit ClientBackend(BackendClient& client) : client_(client) {}

    bool isSignedIn() const override { return ::isSignedIn(); }
    void speechToken(Completion<QString> done) override { client_.speechToken(std::move(done)); }
    void reportUsage(double seconds) override { client_.reportUsage(seconds); }

    std::unique_ptr<Answer> answer(const AnswerRequest& request, AnswerHandlers handlers) override {
        return std::make_unique<StreamedAnswer>(client_.answer(request), std::move(handlers));
    }

private:
    BackendClient& client_;
};

}  // namespace

std::unique_ptr<SessionBackend> SessionBackend::over(BackendClient& client) {
    return std::make_unique<ClientBackend>(client);
}
