#include "sessioncontroller.h"

#include "appsettings.h"
#include "deepgramstream.h"
#include "miccapture.h"
#include "pcmconverter.h"
#include "sessiontext.h"
#include "systemaudiocapture.h"

#include <QPointer>

#include <utility>

namespace {

const QString interviewerLabel = QStringLiteral("Interviewer");
const QString meLabel = QStringLiteral("You");

QString systemAudioUnavailableNotice() {
    return QStringLiteral(
        "Tallowind can't hear your computer's audio. Check that your sound settings have an output device, "
        "then start listening again.");
}

QString systemAudioStoppedNotice(const Failure& error) {
    QString reason = error.description();
    if (reason.isEmpty()) {
        reason = QStringLiteral("unknown reason");
    }
    return QStringLiteral("System audio stopped: ") + reason +
           QStringLiteral(". Press Ctrl+Alt+S twice to restart.");
}

SessionController::StreamFactory deepgramStreams() {
    return [](const QString& label, TokenProvider tokens) -> std::unique_ptr<SpeechStream> {
        return std::make_unique<DeepgramStream>(label, std::move(tokens));
    };
}

}  // namespace

void SessionController::AudioRoute::send(const QByteArray& pcm) {
    std::lock_guard guard(lock_);
    if (stream_) {
        stream_->send(pcm);
    }
}

void SessionController::AudioRoute::setStream(SpeechStream* stream) {
    std::lock_guard guard(lock_);
    stream_ = stream;
}

SessionController::SessionController() : SessionController(Parts{}) {}

SessionController::SessionController(Parts parts, QObject* parent)
    : QObject(parent)
    , settings_(parts.settings ? *parts.settings : AppSettings::shared())
    , backend_(parts.backend ? std::move(parts.backend) : SessionBackend::over(BackendClient::shared()))
    , makeStream_(parts.makeStream ? std::move(parts.makeStream) : deepgramStreams())
    , systemCapture_(parts.systemCapture ? std::move(parts.systemCapture)
                                         : std::make_unique<SystemAudioCapture>())
    , micCapture_(parts.micCapture ? std::move(parts.micCapture) : std::make_unique<MicCapture>())
    , microphoneAccess_(parts.microphoneAccess ? std::move(parts.microphoneAccess)
                                               : MicrophoneAccess::pulse())
    , clock_(parts.clock ? std::move(parts.clock) : SessionClock::system()) {
    // Installed once rather than at every start: what they reach (the routes, the meter's gate) already
    // follows the session, and replacing a handler could race with a capture thread still delivering.
    systemCapture_->setOnAudio([this](const QByteArray& pcm) {
        interviewer_.route.send(pcm);
        meter(pcm.size());
    });
    systemCapture_->setOnStop([this](const Failure& error) {
        if (isRunning_) {
            setHealth(interviewer_, Health::problem);
            setNotice(systemAudioStoppedNotice(error));
        }
    });
    // Microphone audio goes to the user's stream only; it is never metered.
    micCapture_->setOnAudio([this](const QByteArray& pcm) { me_.route.send(pcm); });
}

SessionController::~SessionController() {
    // The captures call back into this object from their own threads until they are stopped.
    systemCapture_->stop();
    micCapture_->stop();
}

SessionController& SessionController::shared() {
    static SessionController* instance = new SessionController;  // lives for the whole run
    return *instance;
}

bool SessionController::looksLikeQuestion(QStringView text) {
    return SessionText::looksLikeQuestion(text);
}

// Lifecycle

void SessionController::toggle() {
    if (isRunning_) {
        stop();
    } else {
        start();
    }
}

void SessionController::start() {
    if (isRunning_) {
        return;
    }
    if (!backend_->isSignedIn()) {
        setNotice(QStringLiteral("Sign in to start listening."));
        return;
    }
    const quint64 session = ++session_;
    setIsRunning(true);
    setNotice({});
    setHealth(interviewer_, Health::connecting);

    interviewer_.stream = makeStream(interviewerLabel, Speaker::interviewer, session);
    interviewer_.route.setStream(interviewer_.stream.get());
    interviewer_.stream->start();

    {
        std::lock_guard guard(secondsLock_);
        metering_ = true;
    }
    const CaptureStart systemStart{++systemStartAttempt_, session};
    systemStarting_ = true;
    // Completions hold the controller weakly: a capture or a permission answer may outlive it.
    systemCapture_->start([self = QPointer(this), systemStart](const Result<Done>& result) {
        if (self) {
            self->systemCaptureStarted(systemStart, result);
        }
    });

    if (settings_.useMic()) {
        startMic(session);
    }

    usageTimer_ = clock_->repeat(usageInterval, [this] { flushUsage(); });
}

void SessionController::systemCaptureStarted(CaptureStart start, const Result<Done>& result) {
    // A newer start of the capture decides by its own completion.
    if (start.attempt != systemStartAttempt_) {
        return;
    }
    systemStarting_ = false;
    if (!result) {
        // Shown even when the session has ended meanwhile: the user should know why nothing was heard.
        setHealth(interviewer_, Health::problem);
        setNotice(systemAudioUnavailableNotice());
        return;
    }
    if (!isRunning_ || start.session != session_) {
        // The session was stopped while the capture was still starting, and left the start alone.
        systemCapture_->stop();
    }
}

void SessionController::startMic(quint64 session) {
    setHealth(me_, Health::connecting);
    me_.stream = makeStream(meLabel, Speaker::me, session);
    me_.route.setStream(me_.stream.get());
    microphoneAccess_->request([self = QPointer(this), session](bool granted) {
        if (self) {
            self->micAccessAnswered(session, granted);
        }
    });
}

void SessionController::micAccessAnswered(quint64 session, bool granted) {
    if (!isRunning_ || session != session_) {
        return;
    }
    if (!granted) {
        setHealth(me_, Health::problem);
        setNotice(QStringLiteral("Microphone access is off, so Tallowind only hears the interviewer."));
        return;
    }
    const CaptureStart micStart{++micStartAttempt_, session};
    micCapture_->start([self = QPointer(this), micStart](const Result<Done>& result) {
        if (self) {
            self->micCaptureStarted(micStart, result);
        }
    });
}

void SessionController::micCaptureStarted(CaptureStart start, const Result<Done>& result) {
    const bool current = isRunning_ && start.session == session_;
    if (!result) {
        if (current) {
            setHealth(me_, Health::problem);
        }
        return;
    }
    if (!current) {
        if (start.attempt == micStartAttempt_) {
            micCapture_->stop();
        }
        return;
    }
    // The user's stream connects only once there is audio to send.
    if (me_.stream) {
        me_.stream->start();
    }
}

void SessionController::stop() {
    if (!isRunning_) {
        return;
    }
    setIsRunning(false);
    // A system-audio start still under way is left to finish: a capture stopped during its start
    // would report that as a failure to start, which is not one. Its completion stops it again, and
    // until then its audio goes nowhere and is not counted.
    if (!systemStarting_) {
        systemCapture_->stop();
    }
    micCapture_->stop();
    {
        std::lock_guard guard(secondsLock_);
        metering_ = false;
    }
    for (Source* source : {&interviewer_, &me_}) {
        source->route.setStream(nullptr);
        if (source->stream) {
            source->stream->stop();
        }
    }
    interviewer_.stream.reset();
    me_.stream.reset();
    usageTimer_.reset();
    commit(Speaker::interviewer, false);
    commit(Speaker::me, false);
    setInterim(interviewer_, {});
    setInterim(me_, {});
    setHealth(interviewer_, Health::off);
    setHealth(me_, Health::off);
    flushUsage();
}

std::unique_ptr<SpeechStream> SessionController::makeStream(const QString& label, Speaker speaker,
                                                            quint64 session) {
    auto stream =
        makeStream_(label, [this](Completion<QString> done) { backend_->speechToken(std::move(done)); });
    stream->setOnEvent([this, speaker, session](const SpeechStream::Event& event) {
        // Handled from the event loop, one call per event in arrival order, so that nothing the handling
        // does (stopping the session, say) runs inside the stream's own call.
        QMetaObject::invokeMethod(
            this, [this, event, speaker, session] { handle(event, speaker, session); }, Qt::QueuedConnection);
    });
    return stream;
}

// Transcript

void SessionController::handle(const SpeechStream::Event& event, Speaker speaker, quint64 session) {
    // Events of a stream that belonged to an earlier session are as stale as those arriving after stop.
    if (!isRunning_ || session != session_) {
        return;
    }
    Source& source = this->source(speaker);
    using Kind = SpeechStream::Event::Kind;
    switch (event.kind) {
        case Kind::interim:
            setInterim(source, SessionText::join(source.pending, event.text));
            break;
        case Kind::final:
            source.pending = SessionText::join(source.pending, event.text);
            setInterim(source, source.pending);
            if (event.endOfUtterance) {
                commit(speaker, true);
            }
            break;
        case Kind::utteranceEnd:
            commit(speaker, true);
            break;
        case Kind::connected:
            setHealth(source, Health::ok);
            if (notice_.startsWith(QLatin1String("Reconnecting"))) {
                setNotice({});
            }
            break;
        case Kind::failed:
            setHealth(source, Health::problem);
            setNotice(event.text);
            break;
    }
}

void SessionController::commit(Speaker speaker, bool triggerAnswer) {
    Source& source = this->source(speaker);
    const QString text = std::exchange(source.pending, QString());
    // Also when nothing was final: an utterance end clears a hypothesis that never became text.
    setInterim(source, {});
    if (text.isEmpty()) {
        return;
    }
    TranscriptLine line(speaker, text);
    lineTimes_.insert(line.id, clock_->now());
    lines_.append(std::move(line));
    emit linesChanged();
    pruneTranscript();

    if (speaker == Speaker::interviewer && triggerAnswer && settings_.autoAnswer()) {
        const QString question = SessionText::currentQuestion(lines_);
        if (SessionText::looksLikeQuestion(question)) {
            ask(question);
        }
    }
}

void SessionController::pruneTranscript() {
    const SessionClock::TimePoint cutoff = clock_->now() - transcriptWindow;
    lines_.removeIf([this, cutoff](const TranscriptLine& line) {
        const auto time = lineTimes_.constFind(line.id);
        if (time == lineTimes_.cend() || *time >= cutoff) {
            return false;
        }
        lineTimes_.erase(time);
        return true;
    });
    emit linesChanged();
}

// Answers

void SessionController::ask(const QString& question) {
    answerTask_.reset();
    const quint64 task = ++answerGeneration_;
    setQuestion(question);
    setAnswer({});
    setIsAnswering(true);
    setNotice({});

    const SessionBackend::AnswerRequest request{
        question, lines_, settings_.resume(), settings_.jobDescription(), settings_.extraInstructions(),
    };
    SessionBackend::AnswerHandlers handlers{
        [this, task](const QString& piece) {
            if (task == answerGeneration_) {
                answer_ += piece;
                emit answerChanged();
            }
        },
        [this, task](const std::optional<Failure>& failure) {
            // Each write is checked on its own: an observer of the notice may already have asked anew.
            if (failure && task == answerGeneration_) {
                setNotice(failure->description());
            }
            if (task == answerGeneration_) {
                setIsAnswering(false);
            }
        },
    };
    answerTask_ = backend_->answer(request, std::move(handlers));
}

void SessionController::answerNow() {
    QString question = SessionText::currentQuestion(lines_);
    if (!interviewer_.interim.isEmpty()) {
        question = SessionText::join(question, interviewer_.interim);
    }
    if (question.isEmpty()) {
        question = SessionText::latestInterviewerText(lines_);
    }
    if (question.isEmpty()) {
        setNotice(isRunning_ ? QStringLiteral("Waiting for the interviewer to say something.")
                             : QStringLiteral("Start listening first (Ctrl+Alt+S)."));
        return;
    }
    ask(question);
}

void SessionController::clear() {
    answerTask_.reset();
    ++answerGeneration_;
    setIsAnswering(false);
    setQuestion({});
    setAnswer({});
    setNotice({});
}

// Usage

void SessionController::meter(qsizetype bytes) {
    std::lock_guard guard(secondsLock_);
    if (metering_) {
        audioSeconds_ += static_cast<double>(bytes) / PCMConverter::bytesPerSecond;
    }
}

void SessionController::flushUsage() {
    double seconds = 0;
    {
        std::lock_guard guard(secondsLock_);
        seconds = std::exchange(audioSeconds_, 0.0);
    }
    // Less than a second is dropped, not carried over.
    if (seconds >= 1.0) {
        backend_->reportUsage(seconds);
    }
}

// Observable fields: every assignment notifies, also of an equal value.

void SessionController::setIsRunning(bool value) {
    isRunning_ = value;
    emit isRunningChanged();
}

void SessionController::setInterim(Source& source, const QString& value) {
    source.interim = value;
    emit(this->*source.interimChanged)();
}

void SessionController::setHealth(Source& source, Health value) {
    source.health = value;
    emit(this->*source.healthChanged)();
}

void SessionController::setQuestion(const QString& value) {
    question_ = value;
    emit questionChanged();
}

void SessionController::setAnswer(const QString& value) {
    answer_ = value;
    emit answerChanged();
}

void SessionController::setIsAnswering(bool value) {
    isAnswering_ = value;
    emit isAnsweringChanged();
}

void SessionController::setNotice(const QString& value) {
    notice_ = value;
    emit noticeChanged();
}
