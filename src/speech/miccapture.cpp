#include "miccapture.h"

MicCapture::MicCapture(std::shared_ptr<AudioServer> server)
    : ServerCapture(std::move(server), {AudioServer::Request::Source::defaultSource, std::nullopt, 4096},
                    QStringLiteral("No microphone found.")) {}
