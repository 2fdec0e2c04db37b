#pragma once

#include <functional>
#include <memory>

// Whether the program may record the user's microphone. Linux has no per-program permission: access
// counts as granted when the sound server has a default input to record from.
class MicrophoneAccess {
public:
    virtual ~MicrophoneAccess() = default;

    // Asks for access; `answer` runs once on the main thread, never before request() returns, and not
    // at all once this object is gone.
    virtual void request(std::function<void(bool granted)> answer) = 0;

    // The sound server of this desktop session.
    static std::unique_ptr<MicrophoneAccess> pulse();
};

// The default devices the sound server names: an input (the microphone) and an output (whose monitor
// carries the call). Both false when no server answers. Blocks for up to a few seconds, so it belongs on
// a worker thread.
struct SoundServerDefaults {
    bool source = false;
    bool sink = false;
};
SoundServerDefaults querySoundServerDefaults();
