#pragma once

#include "servercapture.h"

// What the computer plays: the monitor of the default output device. The program plays no sound of its
// own, so nothing needs to be left out of it.
class SystemAudioCapture final : public ServerCapture {
public:
    explicit SystemAudioCapture(std::shared_ptr<AudioServer> server = AudioServer::pulse());
};
