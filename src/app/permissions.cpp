#include "permissions.h"

#include "microphoneaccess.h"

#include <QCoreApplication>
#include <QProcess>
#include <QStandardPaths>
#include <QThreadPool>

namespace {

class SoundServerSource : public Permissions::Source {
public:
    void check(std::function<void(Permissions::Grants)> answer) override {
        // The sound server may take a few seconds to give up; the main thread never waits for it.
        std::weak_ptr<int> alive = alive_;
        QThreadPool::globalInstance()->start([alive, answer = std::move(answer)] {
            const SoundServerDefaults defaults = querySoundServerDefaults();
            const Permissions::Grants grants{defaults.source, defaults.sink};
            QMetaObject::invokeMethod(
                QCoreApplication::instance(),
                [alive, answer, grants] {
                    if (alive.lock()) {
                        answer(grants);
                    }
                },
                Qt::QueuedConnection);
        });
    }

    void openSoundSettings() override {
        const QStringList command = Permissions::soundSettingsCommand(
            [](const QString& program) { return !QStandardPaths::findExecutable(program).isEmpty(); });
        if (!command.isEmpty()) {
            QProcess::startDetached(command.first(), command.mid(1));
        }
    }

private:
    std::shared_ptr<int> alive_ = std::make_shared<int>();
};

}  // namespace

namespace Permissions {

std::unique_ptr<Source> soundServer() {
    return std::make_unique<SoundServerSource>();
}

QStringList soundSettingsCommand(const std::function<bool(const QString& program)>& exists) {
    // The mixer that works on every desktop first, then the settings pages of the two large desktops.
    const QList<QStringList> commands{
        {QStringLiteral("pavucontrol")},
        {QStringLiteral("gnome-control-center"), QStringLiteral("sound")},
        {QStringLiteral("systemsettings"), QStringLiteral("kcm_pulseaudio")},
    };
    for (const QStringList& command : commands) {
        if (exists(command.first())) {
            return command;
        }
    }
    return {};
}

}  // namespace Permissions
