#pragma once

#include "servercapture.h"

// The user's own voice from the default input device, in the device's own rate and channel count.
class MicCapture final : public ServerCapture {
public:
    explicit MicCapture(std::shared_ptr<AudioServer> server = AudioServer::pulse());
};
