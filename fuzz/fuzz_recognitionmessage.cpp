#include "fuzzinput.h"
#include "recognitionmessage.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

using Event = SpeechStream::Event;

// `event` written the way the speech service would have sent it.
QString serviceMessage(const Event& event) {
    QJsonObject message;
    if (event.kind == Event::Kind::utteranceEnd) {
        message.insert(QStringLiteral("type"), QStringLiteral("UtteranceEnd"));
    } else {
        const QJsonObject alternative{{QStringLiteral("transcript"), event.text}};
        message.insert(QStringLiteral("type"), QStringLiteral("Results"));
        message.insert(QStringLiteral("channel"),
                       QJsonObject{{QStringLiteral("alternatives"), QJsonArray{alternative}}});
        message.insert(QStringLiteral("is_final"), event.kind == Event::Kind::final);
        message.insert(QStringLiteral("speech_final"), event.endOfUtterance);
    }
    return QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Compact));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QString message =
        QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    const std::optional<Event> event = parseRecognitionMessage(message);
    if (!event) {
        return 0;
    }
    require(event->kind == Event::Kind::interim || event->kind == Event::Kind::final ||
                event->kind == Event::Kind::utteranceEnd,
            "a service message yields only interim, final or utterance-end events");
    require(event->kind != Event::Kind::interim || !event->text.isEmpty(), "an interim carries words");
    require(parseRecognitionMessage(serviceMessage(*event)) == event, "a parsed event reads the same again");
    return 0;
}
