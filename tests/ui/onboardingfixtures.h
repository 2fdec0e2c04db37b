#pragma once

#include "permissions.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QUrl>

// The backend server as a user runs it on their own machine: the real executable in development mode, on
// a free loopback port, with its data in a temporary folder. Sign-in codes come back in its responses.
class DevServer {
public:
    DevServer();
    ~DevServer();

    // Empty when the server did not come up within a few seconds.
    QUrl url() const { return url_; }

private:
    QTemporaryDir data_;
    QProcess process_;
    QUrl url_;
};

// Stands in for the sound server: answers later, on the main thread, with whatever the test has set
// through `grants()`, and counts the times the sound settings were asked for.
class FakePermissions : public Permissions::Source {
public:
    explicit FakePermissions(Permissions::Grants grants = {})
        : grants_(std::make_shared<Permissions::Grants>(grants)) {}

    void check(std::function<void(Permissions::Grants)> answer) override;
    void openSoundSettings() override { ++*settingsOpened_; }

    std::shared_ptr<Permissions::Grants> grants() const { return grants_; }
    std::shared_ptr<int> settingsOpened() const { return settingsOpened_; }

private:
    std::shared_ptr<Permissions::Grants> grants_;
    std::shared_ptr<int> settingsOpened_ = std::make_shared<int>(0);
};
