#include "systemaudiocapture.h"

// 48 kHz stereo float is what the monitor of a typical output runs at, so the server has nothing to
// convert; the converter brings it down to 16 kHz mono.
SystemAudioCapture::SystemAudioCapture(std::shared_ptr<AudioServer> server)
    : ServerCapture(std::move(server),
                    {AudioServer::Request::Source::defaultMonitor,
                     AudioFormat{48000, 2, AudioFormat::SampleType::float32}, 4096},
                    QStringLiteral("No display found to capture audio from.")) {}
