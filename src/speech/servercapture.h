#pragma once

#include "audiocapture.h"
#include "audioserver.h"
#include "pcmconverter.h"

#include <QObject>
#include <QString>

#include <memory>

// A capture of one source of the sound server, converted to the common PCM format. Buffers are converted
// and handed to onAudio on the recording's own thread; starts, failures and server-side stops hop to the
// thread that made the capture (the main thread).
//
//   idle     --start-->            starting
//   starting --server started-->   running   (start completes with Done)
//   starting --server failed-->    idle      (start completes with the failure)
//   starting --stop-->             idle      (start completes with a failure: stopped)
//   running  --server ended-->     idle      (onStop with the server's error)
//   running  --stop-->             idle      (nothing reported)
// A start while starting or running stops first, as above.
class ServerCapture : public AudioCapture {
public:
    ~ServerCapture() override;
    ServerCapture(const ServerCapture&) = delete;
    ServerCapture& operator=(const ServerCapture&) = delete;

    void setOnAudio(AudioHandler handler) override;
    void setOnStop(StopHandler handler) override;
    void start(Completion<Done> done) override;
    void stop() override;

protected:
    // `missingMessage` is what the user sees when there is no server or no such source.
    ServerCapture(std::shared_ptr<AudioServer> server, AudioServer::Request request, QString missingMessage);

private:
    void started(quint64 run);
    void failed(quint64 run, const AudioServer::Failure& failure);
    void finishStart(Result<Done> result);

    const std::shared_ptr<AudioServer> server_;
    const AudioServer::Request request_;
    const QString missingMessage_;
    AudioHandler onAudio_;
    StopHandler onStop_;
    // Used only on the recording's thread; a recording ends (and its thread is joined) before the next one
    // begins, so its state carries over from one run to the next without a lock.
    PCMConverter converter_;
    Completion<Done> pendingStart_;
    // Counts runs so that a report queued by a recording that has since been stopped is recognised and
    // dropped.
    quint64 run_ = 0;
    // Receives the queued reports; destroyed with the capture, which drops any still waiting.
    QObject mainThread_;
    std::unique_ptr<AudioServer::Recording> recording_;
};
