#include "backendclient.h"
#include "cli.h"
#include "deepgramstream.h"
#include "pcmconverter.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>

#include <sndfile.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

namespace {

constexpr auto firstAudioWait = 1500ms;
constexpr auto chunkPause = 50ms;
constexpr int silenceChunks = 20;
constexpr auto lastResultsWait = 3s;

struct SoundFileCloser {
    void operator()(SNDFILE* file) const { sf_close(file); }
};
using SoundFile = std::unique_ptr<SNDFILE, SoundFileCloser>;

// The line shown for one event, if any.
std::optional<QString> printedLine(const SpeechStream::Event& event) {
    using Kind = SpeechStream::Event::Kind;
    switch (event.kind) {
        case Kind::connected:
            return QStringLiteral("[connected]");
        case Kind::interim:
            return std::nullopt;
        case Kind::final:
            if (event.text.isEmpty()) {
                return std::nullopt;
            }
            return (event.endOfUtterance ? QStringLiteral("FINAL: ") : QStringLiteral("final: ")) +
                   event.text;
        case Kind::utteranceEnd:
            return QStringLiteral("[utterance end]");
        case Kind::failed:
            return QStringLiteral("[error] ") + event.text;
    }
    return std::nullopt;
}

// One write per line, so that lines never interleave.
void printLine(const QString& line) {
    const QByteArray bytes = (line + QLatin1Char('\n')).toUtf8();
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stdout);
    std::fflush(stdout);
}

// The feeder's waits. Once the test has finished they end at once, so that the feeder can be joined
// without waiting out its schedule.
class Pauses {
public:
    void wait(std::chrono::milliseconds duration) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, duration, [this] { return cancelled_; });
    }
    void cancel() {
        {
            std::lock_guard lock(mutex_);
            cancelled_ = true;
        }
        changed_.notify_all();
    }
    bool cancelled() {
        std::lock_guard lock(mutex_);
        return cancelled_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool cancelled_ = false;
};

// One run of the speech test: the stream and its printer on the main thread, and a feeder thread
// that streams the file at about twice real time as if it were being heard, then silence.
class SpeechTest : public QObject {
public:
    SpeechTest(SoundFile file, const SF_INFO& info, CLI::Finished finished)
        : file_(std::move(file))
        , info_(info)
        , finished_(std::move(finished))
        , stream_(new DeepgramStream(
              QStringLiteral("test"),
              [](Completion<QString> done) { BackendClient::shared().speechToken(std::move(done)); }, this)) {
    }

    ~SpeechTest() override { stopFeeder(); }

    void run() {
        stream_->setOnEvent([this](const SpeechStream::Event& event) {
            if (auto line = printedLine(event)) {
                printLine(*line);
            }
            if (event.kind == SpeechStream::Event::Kind::failed) {
                complete();
            }
        });
        stream_->start();
        feeder_ = std::thread([this] { feed(); });
    }

private:
    void feed() {
        pauses_.wait(firstAudioWait);
        PCMConverter converter;
        const sf_count_t chunk = info_.samplerate / 10;
        std::vector<float> samples;
        if (chunk > 0) {
            samples.resize(static_cast<size_t>(chunk * info_.channels));
        }
        const AudioFormat format{double(info_.samplerate), info_.channels, AudioFormat::SampleType::float32};
        // A read that yields no frames ends the file, whether at its end or on an error that would
        // otherwise repeat forever.
        while (chunk > 0 && !pauses_.cancelled()) {
            const sf_count_t frames = sf_readf_float(file_.get(), samples.data(), chunk);
            if (frames <= 0) {
                break;
            }
            if (auto pcm = converter.convert(AudioBuffer{format, qsizetype(frames), samples.data()})) {
                stream_->send(*pcm);
            }
            pauses_.wait(chunkPause);
        }
        const QByteArray silence(qsizetype(PCMConverter::bytesPerSecond / 10), '\0');
        for (int i = 0; i < silenceChunks && !pauses_.cancelled(); ++i) {
            stream_->send(silence);
            pauses_.wait(chunkPause);
        }
        pauses_.wait(lastResultsWait);
        QMetaObject::invokeMethod(
            this, [this] { complete(); }, Qt::QueuedConnection);
    }

    // Raised by the feeder when it is done and by the printer on a failure; only the first counts.
    void complete() {
        if (completed_) {
            return;
        }
        completed_ = true;
        stopFeeder();
        stream_->stop();
        finished_(std::nullopt);
    }

    void stopFeeder() {
        pauses_.cancel();
        if (feeder_.joinable()) {
            feeder_.join();
        }
    }

    SoundFile file_;
    const SF_INFO info_;
    const CLI::Finished finished_;
    DeepgramStream* stream_;
    Pauses pauses_;
    std::thread feeder_;
    bool completed_ = false;
};

}  // namespace

namespace CLI {

void testSTT(const QString& path, Finished finished) {
    const QString location = QFileInfo(path).absoluteFilePath();
    SF_INFO info{};
    SoundFile file(sf_open(QFile::encodeName(location).constData(), SFM_READ, &info));
    if (!file) {
        finished(Failure::other(QStringLiteral("Couldn't open %1 as audio: %2")
                                    .arg(location, QString::fromUtf8(sf_strerror(nullptr)))));
        return;
    }
    // The application owns the run: it lives until the process ends.
    auto* test = new SpeechTest(std::move(file), info, std::move(finished));
    test->setParent(QCoreApplication::instance());
    test->run();
}

}  // namespace CLI
