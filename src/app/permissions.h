#pragma once

#include <QStringList>

#include <functional>
#include <memory>

// The program's dealings with what the desktop lets it hear. Linux asks no permission of a native
// program: hearing the call needs a default output on the sound server (its monitor carries the call) and
// hearing the user needs a default input, so "granted" means the device is there, and the way to grant it
// is the desktop's sound settings.
namespace Permissions {

struct Grants {
    bool mic = false;
    bool screen = false;

    friend bool operator==(const Grants&, const Grants&) = default;
};

// Where the grants come from; the onboarding asks one of these, tests and screenshots stand in their own.
class Source {
public:
    virtual ~Source() = default;

    // Asks for both grants; `answer` runs once on the main thread, never before check() returns, and not
    // at all once this source is gone.
    virtual void check(std::function<void(Grants)> answer) = 0;
    // Opens the desktop's sound settings, where both the input and the output are chosen.
    virtual void openSoundSettings() = 0;
};

// The sound server of this desktop session.
std::unique_ptr<Source> soundServer();

// The command that opens the sound settings: the first of the known tools for which `exists` holds, or
// empty when none does.
QStringList soundSettingsCommand(const std::function<bool(const QString& program)>& exists);

}  // namespace Permissions
