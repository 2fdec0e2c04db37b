#pragma once

#include "backenderror.h"
#include "updatedialogs.h"

#include <QObject>
#include <QString>

#include <functional>
#include <memory>
#include <optional>

class QNetworkAccessManager;
class QTimer;

// Finds out whether the backend offers a newer release than the one running, offers it, and installs
// it: download, digest check, unpack, then a shell script swaps the bundle once this process has quit
// and starts the new version. Checks run at launch, every 24 hours, and when the user asks; a check the
// user started answers in every case, a background one only when there is something to install. All of
// it lives on the main thread.
class Updater : public QObject {
    Q_OBJECT

public:
    // One release as the backend's manifest describes it.
    struct Release {
        QString version;
        QString zip;  // an absolute address, or one relative to the backend's base address
        QString sha256;
        std::optional<QString> notes;

        // The manifest: one JSON object; a missing required key or a value of the wrong type makes it
        // unreadable, other keys are ignored.
        static Result<Release> decode(const QByteArray& body);

        friend bool operator==(const Release&, const Release&) = default;
    };

    // The running program as the installer sees it.
    struct Host {
        std::optional<QString> bundle;  // absent: the program cannot replace itself
        qint64 processId = 0;

        static Host current();
    };

    explicit Updater(Host host = Host::current(), QObject* parent = nullptr);
    ~Updater() override;

    // The program's updater, made on first use with the running program as its host.
    static Updater& shared();

    // Where dialogs appear; until the desktop shell sets one, the updater shows nothing.
    void setDialogs(std::unique_ptr<UpdateDialogs> dialogs);
    // How a finished installation ends the program: the application's normal quit path, which stops a
    // running session. QCoreApplication::quit until set.
    void setQuitHandler(std::function<void()> quit);

    // One background check at once, then one every 24 hours for the rest of the run. Call once.
    void startChecking();
    // Returns at once; the check answers through dialogs. Checks may overlap.
    void check(bool userInitiated);
    // Whether version `candidate` is newer than `current`: dotted numbers compared piece by piece.
    static bool isNewer(const QString& candidate, const QString& current);
    // Offers `release`; accepting starts install() once the dialog has closed.
    void promptToInstall(const Release& release);
    // Downloads, verifies and unpacks `release`, starts the swap and quits. Every failure ends in one
    // "Update failed" dialog and leaves the running program as it was.
    void install(const Release& release);

    // The 24-hour timer; null before startChecking().
    QTimer* timer() const { return timer_; }

private:
    // The chosen button's index, or -1 when there is nowhere to show the dialog.
    int show(const UpdateDialog& dialog);
    void failInstall(const Failure& failure);
    void finishInstall(const QString& workDirectory);

    Host host_;
    std::unique_ptr<QNetworkAccessManager> network_;
    std::unique_ptr<UpdateDialogs> dialogs_;
    std::function<void()> quit_;
    QTimer* timer_ = nullptr;
};
