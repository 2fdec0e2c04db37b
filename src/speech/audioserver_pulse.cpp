#include "audioserver.h"

#include <pulse/context.h>
#include <pulse/error.h>
#include <pulse/introspect.h>
#include <pulse/mainloop-api.h>
#include <pulse/stream.h>
#include <pulse/thread-mainloop.h>

#include <cstdint>

namespace {

pa_sample_format_t sampleFormat(AudioFormat::SampleType type) {
    switch (type) {
        case AudioFormat::SampleType::int16:
            return PA_SAMPLE_S16NE;
        case AudioFormat::SampleType::int32:
            return PA_SAMPLE_S32NE;
        case AudioFormat::SampleType::float32:
            break;
    }
    return PA_SAMPLE_FLOAT32NE;
}

// The source's own sample type where the converter reads it as is; anything else (24-bit, 8-bit, A-law) the
// server hands over as float, which loses nothing.
AudioFormat::SampleType sampleType(pa_sample_format_t format) {
    switch (format) {
        case PA_SAMPLE_S16NE:
            return AudioFormat::SampleType::int16;
        case PA_SAMPLE_S32NE:
            return AudioFormat::SampleType::int32;
        default:
            return AudioFormat::SampleType::float32;
    }
}

// One recording with a client connection and a loop thread of its own, so that the two captures never wait
// for each other and tearing one down cannot disturb the other. Every callback below runs on the loop
// thread with the loop's lock held; the destructor takes the same lock, which is what guarantees that no
// handler runs once it has returned.
class PulseRecording final : public AudioServer::Recording {
public:
    PulseRecording(AudioServer::Request request, AudioServer::Handlers handlers)
        : request_(std::move(request)), handlers_(std::move(handlers)), loop_(pa_threaded_mainloop_new()) {
        if (!loop_ || pa_threaded_mainloop_start(loop_) < 0) {
            handlers_.failed(
                {AudioServer::Failure::Kind::server, QString::fromUtf8(pa_strerror(PA_ERR_INTERNAL))});
            return;
        }
        pa_threaded_mainloop_lock(loop_);
        pa_mainloop_api_once(
            pa_threaded_mainloop_get_api(loop_),
            [](pa_mainloop_api*, void* self) { static_cast<PulseRecording*>(self)->connect(); }, this);
        pa_threaded_mainloop_unlock(loop_);
    }

    ~PulseRecording() override {
        if (!loop_)
            return;
        pa_threaded_mainloop_lock(loop_);
        closing_ = true;
        if (stream_) {
            pa_stream_set_state_callback(stream_, nullptr, nullptr);
            pa_stream_set_read_callback(stream_, nullptr, nullptr);
            pa_stream_disconnect(stream_);
            pa_stream_unref(stream_);
        }
        if (context_) {
            pa_context_set_state_callback(context_, nullptr, nullptr);
            pa_context_disconnect(context_);
            pa_context_unref(context_);
        }
        pa_threaded_mainloop_unlock(loop_);
        pa_threaded_mainloop_stop(loop_);
        pa_threaded_mainloop_free(loop_);
    }

private:
    using Failure = AudioServer::Failure;

    void connect() {
        if (closing_)
            return;
        context_ = pa_context_new(pa_threaded_mainloop_get_api(loop_), "Tallowind");
        if (!context_) {
            fail(Failure::Kind::noServer, PA_ERR_INTERNAL);
            return;
        }
        pa_context_set_state_callback(context_, &PulseRecording::contextChanged, this);
        // No autospawn: a desktop without a sound server must fail the start, not grow a daemon.
        if (pa_context_connect(context_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0)
            fail(Failure::Kind::noServer, pa_context_errno(context_));
    }

    // The answer comes through the operation's callback; without an operation the question never left.
    void ask(pa_operation* operation) {
        if (operation)
            pa_operation_unref(operation);
        else
            fail(Failure::Kind::server, pa_context_errno(context_));
    }

    static void contextChanged(pa_context* context, void* data) {
        auto* self = static_cast<PulseRecording*>(data);
        switch (pa_context_get_state(context)) {
            case PA_CONTEXT_READY:
                self->ask(pa_context_get_server_info(context, &PulseRecording::serverInfo, self));
                break;
            case PA_CONTEXT_FAILED:
            case PA_CONTEXT_TERMINATED:
                // Before the stream exists, a lost connection means there is no usable server at all.
                self->fail(self->stream_ ? Failure::Kind::server : Failure::Kind::noServer,
                           pa_context_errno(context));
                break;
            default:
                break;
        }
    }

    static void serverInfo(pa_context* context, const pa_server_info* info, void* data) {
        auto* self = static_cast<PulseRecording*>(data);
        if (self->finished_)
            return;
        const bool monitor = self->request_.source == AudioServer::Request::Source::defaultMonitor;
        const char* device = info ? (monitor ? info->default_sink_name : info->default_source_name) : nullptr;
        if (!device || !*device) {
            self->fail(Failure::Kind::noDevice, PA_ERR_NOENTITY);
            return;
        }
        if (self->request_.format) {
            self->open(*self->request_.format);
            return;
        }
        self->ask(pa_context_get_source_info_by_name(context, device, &PulseRecording::sourceInfo, self));
    }

    static void sourceInfo(pa_context*, const pa_source_info* info, int last, void* data) {
        auto* self = static_cast<PulseRecording*>(data);
        if (self->finished_ || self->stream_)
            return;
        if (info) {
            self->open({static_cast<double>(info->sample_spec.rate), info->sample_spec.channels,
                        sampleType(info->sample_spec.format)});
        } else if (last != 0) {
            // The default source vanished between the two questions, or the server refused the lookup.
            self->fail(Failure::Kind::noDevice, PA_ERR_NOENTITY);
        }
    }

    void open(const AudioFormat& format) {
        format_ = format;
        const pa_sample_spec sampleSpec{sampleFormat(format.sampleType),
                                        static_cast<std::uint32_t>(format.sampleRate),
                                        static_cast<std::uint8_t>(format.channels)};
        const bool monitor = request_.source == AudioServer::Request::Source::defaultMonitor;
        stream_ = pa_stream_new(context_, monitor ? "System audio" : "Microphone", &sampleSpec, nullptr);
        if (!stream_) {
            fail(Failure::Kind::server, pa_context_errno(context_));
            return;
        }
        frameSize_ = pa_frame_size(&sampleSpec);
        pa_stream_set_state_callback(stream_, &PulseRecording::streamChanged, this);
        pa_stream_set_read_callback(stream_, &PulseRecording::readable, this);
        pa_buffer_attr attributes{};
        attributes.maxlength = UINT32_MAX;
        attributes.tlength = UINT32_MAX;
        attributes.prebuf = UINT32_MAX;
        attributes.minreq = UINT32_MAX;
        attributes.fragsize = request_.framesPerBuffer > 0
                                  ? static_cast<std::uint32_t>(request_.framesPerBuffer * frameSize_)
                                  : UINT32_MAX;
        // The source's latency follows the fragment size, so the server wakes us once per buffer rather than
        // once per default-sized chunk. No device for the microphone: the stream then follows the default
        // source when the user picks another one.
        const char* device = monitor ? "@DEFAULT_MONITOR@" : nullptr;
        if (pa_stream_connect_record(stream_, device, &attributes, PA_STREAM_ADJUST_LATENCY) < 0)
            fail(Failure::Kind::server, pa_context_errno(context_));
    }

    static void streamChanged(pa_stream* stream, void* data) {
        auto* self = static_cast<PulseRecording*>(data);
        switch (pa_stream_get_state(stream)) {
            case PA_STREAM_READY:
                if (!self->finished_ && self->handlers_.started)
                    self->handlers_.started();
                break;
            case PA_STREAM_FAILED:
            case PA_STREAM_TERMINATED:
                self->fail(Failure::Kind::server, pa_context_errno(pa_stream_get_context(stream)));
                break;
            default:
                break;
        }
    }

    static void readable(pa_stream* stream, std::size_t, void* data) {
        auto* self = static_cast<PulseRecording*>(data);
        while (pa_stream_readable_size(stream) > 0) {
            const void* samples = nullptr;
            std::size_t bytes = 0;
            if (pa_stream_peek(stream, &samples, &bytes) < 0 || bytes == 0)
                return;
            // A null pointer with a size is a hole in the recording (an overrun): nothing to hand on.
            if (samples && !self->finished_ && self->handlers_.audio) {
                const auto frames = static_cast<qsizetype>(bytes / self->frameSize_);
                if (frames > 0)
                    self->handlers_.audio(AudioBuffer{self->format_, frames, samples});
            }
            pa_stream_drop(stream);
        }
    }

    void fail(Failure::Kind kind, int error) {
        if (finished_ || closing_)
            return;
        finished_ = true;
        if (handlers_.failed)
            handlers_.failed({kind, QString::fromUtf8(pa_strerror(error))});
    }

    const AudioServer::Request request_;
    const AudioServer::Handlers handlers_;
    pa_threaded_mainloop* const loop_;
    pa_context* context_ = nullptr;
    pa_stream* stream_ = nullptr;
    AudioFormat format_;
    std::size_t frameSize_ = 1;
    bool finished_ = false;
    bool closing_ = false;
};

class PulseServer final : public AudioServer {
public:
    std::unique_ptr<Recording> record(const Request& request, Handlers handlers) override {
        return std::make_unique<PulseRecording>(request, std::move(handlers));
    }
};

}  // namespace

std::shared_ptr<AudioServer> AudioServer::pulse() {
    return std::make_shared<PulseServer>();
}
