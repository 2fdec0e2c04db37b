#include "loopbackservices.h"

#include <QTimer>

LoopbackServices::LoopbackServices() {
    backend_.listen();
    speech_.listen();
    backend_.setHandler([](const TestHttpServer::Received& request) {
        const QByteArray path = request.target.split('?').first();
        if (path == "/answer") {
            return TestHttpServer::Response::stream(
                {{"data: {\"type\":\"text\",\"text\":\"I led the rewrite of our billing system.\"}\n", 0},
                 {"data: {\"type\":\"text\",\"text\":\" It cut our invoice errors by half.\"}\n", 20}});
        }
        return TestHttpServer::Response::json(
            200, path == "/stt-token" ? R"({"token":"speech-token"})"
                 : path == "/me"      ? R"({"email":"me@example.org","minutesUsed":12,"minutesLimit":600})"
                                      : "{}");
    });
    // A long run keeps the transcript and the answers busy.
    auto* questions = new QTimer(&speech_);
    QObject::connect(questions, &QTimer::timeout, &speech_, [this] {
        for (int index = 0; index < speech_.connections().size(); ++index) {
            if (speech_.connections()[index].open) {
                speech_.sendText(
                    index, R"({"type":"Results","is_final":true,"speech_final":true,"channel":)"
                           R"({"alternatives":[{"transcript":"What is a project you are proud of?"}]}})");
            }
        }
    });
    questions->start(5000);
}

QProcessEnvironment LoopbackServices::environment(QProcessEnvironment base) const {
    base.insert("TALLOWIND_SERVER", backend_.url().toString());
    base.insert("TALLOWIND_STT_URL", speech_.url().toString());
    base.insert("TALLOWIND_TOKEN", "session-token");
    return base;
}

QList<TestHttpServer::Received> LoopbackServices::requests(const QByteArray& path) const {
    QList<TestHttpServer::Received> found = backend_.received();
    found.removeIf(
        [&](const TestHttpServer::Received& request) { return request.target.split('?').first() != path; });
    return found;
}
