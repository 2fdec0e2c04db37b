#pragma once

#include "audiocapture.h"
#include "microphoneaccess.h"
#include "sessionbackend.h"
#include "sessionclock.h"
#include "speechstream.h"
#include "transcriptline.h"

#include <QHash>
#include <QList>
#include <QObject>
#include <QString>
#include <QUuid>

#include <functional>
#include <memory>
#include <mutex>

class AppSettings;

// One listening session at a time and everything the overlay shows about it: whether the program is
// listening, the committed transcript of the last ten minutes, the words being heard, the question being
// answered and its streamed answer, the state of both audio sources and a one-line notice.
//
// The interviewer is heard through system audio, the user through the microphone (when the setting is
// on and the sound server offers one). Each source feeds its own speech stream; final text is committed
// as a line when the speaker's utterance ends, and an interviewer question can start an answer on its
// own. System audio is metered and reported to the backend every minute and at stop.
//
// Everything runs on the main thread except the captures' audio callbacks, which forward each buffer to
// its stream and add system audio to the usage counter under `secondsLock_`.
class SessionController : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool isRunning READ isRunning NOTIFY isRunningChanged)
    Q_PROPERTY(QList<TranscriptLine> lines READ lines NOTIFY linesChanged)
    Q_PROPERTY(QString interimInterviewer READ interimInterviewer NOTIFY interimInterviewerChanged)
    Q_PROPERTY(QString interimMe READ interimMe NOTIFY interimMeChanged)
    Q_PROPERTY(QString question READ question NOTIFY questionChanged)
    Q_PROPERTY(QString answer READ answer NOTIFY answerChanged)
    Q_PROPERTY(bool isAnswering READ isAnswering NOTIFY isAnsweringChanged)
    Q_PROPERTY(Health systemAudio READ systemAudio NOTIFY systemAudioChanged)
    Q_PROPERTY(Health mic READ mic NOTIFY micChanged)
    Q_PROPERTY(QString notice READ notice NOTIFY noticeChanged)

public:
    // The state of one audio source, as a status dot shows it. The session itself is idle or listening
    // (`isRunning`); each source moves like this:
    //
    //   from        event                                                   to
    //   off         the session starts the source                           connecting
    //   any         its stream reports connected, while listening           ok
    //   any         its stream fails, its capture fails or ends,            problem
    //               microphone access is refused
    //   any         stop                                                    off
    //   off         system-audio capture start fails after stop             problem
    //
    // Nothing goes from problem back to connecting: the stream retries on its own and shows ok again when
    // it reconnects, and captures restart only with a new session.
    enum class Health { off, connecting, ok, problem };
    Q_ENUM(Health)

    // Makes a speech stream for the source named `label` ("Interviewer", "You").
    using StreamFactory =
        std::function<std::unique_ptr<SpeechStream>(const QString& label, TokenProvider tokens)>;

    // The collaborators, each left empty to get the program's real one.
    struct Parts {
        AppSettings* settings = nullptr;  // not owned
        std::unique_ptr<SessionBackend> backend;
        StreamFactory makeStream;
        std::unique_ptr<AudioCapture> systemCapture;
        std::unique_ptr<AudioCapture> micCapture;
        std::unique_ptr<MicrophoneAccess> microphoneAccess;
        std::unique_ptr<SessionClock> clock;
    };

    static constexpr std::chrono::seconds transcriptWindow{600};
    static constexpr std::chrono::seconds usageInterval{60};

    // Over the program's real collaborators.
    SessionController();
    explicit SessionController(Parts parts, QObject* parent = nullptr);
    ~SessionController() override;

    // The program's controller over its real collaborators; lives for the whole run.
    static SessionController& shared();

    static bool looksLikeQuestion(QStringView text);

    bool isRunning() const { return isRunning_; }
    const QList<TranscriptLine>& lines() const { return lines_; }
    const QString& interimInterviewer() const { return interviewer_.interim; }
    const QString& interimMe() const { return me_.interim; }
    const QString& question() const { return question_; }
    const QString& answer() const { return answer_; }
    bool isAnswering() const { return isAnswering_; }
    Health systemAudio() const { return interviewer_.health; }
    Health mic() const { return me_.health; }
    // Empty when there is no notice.
    const QString& notice() const { return notice_; }

public slots:
    void toggle();
    void start();
    // Ends the captures and streams, commits pending text without answering and reports the last
    // seconds. The transcript, the answer and the notice stay.
    void stop();

    // Answers whatever the interviewer asked last, including words still being recognised.
    void answerNow();
    // Cancels the running answer, if any, and asks the backend to answer `question`.
    void ask(const QString& question);
    void clear();

signals:
    void isRunningChanged();
    void linesChanged();
    void interimInterviewerChanged();
    void interimMeChanged();
    void questionChanged();
    void answerChanged();
    void isAnsweringChanged();
    void systemAudioChanged();
    void micChanged();
    void noticeChanged();

private:
    // Where a capture's buffers go. The capture thread reads it; the main thread points it at a stream at
    // start and away from it before the stream is released.
    class AudioRoute {
    public:
        void send(const QByteArray& pcm);
        void setStream(SpeechStream* stream);

    private:
        std::mutex lock_;
        SpeechStream* stream_ = nullptr;
    };

    // The fields of one speaker.
    struct Source {
        Speaker speaker;
        QString pending;
        QString interim;
        Health health = Health::off;
        std::unique_ptr<SpeechStream> stream;
        AudioRoute route;
        void (SessionController::*interimChanged)();
        void (SessionController::*healthChanged)();
    };

    // Which start of a capture a completion belongs to: starts can overlap when the session is stopped
    // and started again before a capture has finished starting.
    struct CaptureStart {
        quint64 attempt = 0;
        quint64 session = 0;
    };

    Source& source(Speaker speaker) { return speaker == Speaker::interviewer ? interviewer_ : me_; }

    void startMic(quint64 session);
    void micAccessAnswered(quint64 session, bool granted);
    void systemCaptureStarted(CaptureStart start, const Result<Done>& result);
    void micCaptureStarted(CaptureStart start, const Result<Done>& result);
    std::unique_ptr<SpeechStream> makeStream(const QString& label, Speaker speaker, quint64 session);

    void handle(const SpeechStream::Event& event, Speaker speaker, quint64 session);
    void commit(Speaker speaker, bool triggerAnswer);
    void pruneTranscript();

    void meter(qsizetype bytes);
    void flushUsage();

    void setIsRunning(bool value);
    void setInterim(Source& source, const QString& value);
    void setHealth(Source& source, Health value);
    void setQuestion(const QString& value);
    void setAnswer(const QString& value);
    void setIsAnswering(bool value);
    void setNotice(const QString& value);

    AppSettings& settings_;
    std::unique_ptr<SessionBackend> backend_;
    StreamFactory makeStream_;
    std::unique_ptr<AudioCapture> systemCapture_;
    std::unique_ptr<AudioCapture> micCapture_;
    std::unique_ptr<MicrophoneAccess> microphoneAccess_;
    std::unique_ptr<SessionClock> clock_;

    bool isRunning_ = false;
    QList<TranscriptLine> lines_;
    QHash<QUuid, SessionClock::TimePoint> lineTimes_;
    QString question_;
    QString answer_;
    bool isAnswering_ = false;
    QString notice_;
    Source interviewer_{Speaker::interviewer,
                        {},
                        {},
                        Health::off,
                        {},
                        {},
                        &SessionController::interimInterviewerChanged,
                        &SessionController::systemAudioChanged};
    Source me_{Speaker::me,
               {},
               {},
               Health::off,
               {},
               {},
               &SessionController::interimMeChanged,
               &SessionController::micChanged};

    // Counts sessions, so that late callbacks of an earlier one are told apart.
    quint64 session_ = 0;
    quint64 systemStartAttempt_ = 0;
    bool systemStarting_ = false;
    quint64 micStartAttempt_ = 0;

    std::unique_ptr<SessionBackend::Answer> answerTask_;
    // Counts answer requests; a piece or an end for an older one is ignored.
    quint64 answerGeneration_ = 0;

    std::unique_ptr<SessionClock::Timer> usageTimer_;

    // Guards the usage counter between the system-audio capture thread and the main thread. `metering_`
    // closes the counter while idle, so that a capture which finishes starting after stop is not counted.
    std::mutex secondsLock_;
    double audioSeconds_ = 0;
    bool metering_ = false;
};
