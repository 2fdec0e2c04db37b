#pragma once

#include <QLockFile>
#include <QObject>
#include <QString>

#include <memory>

class QLocalServer;

// One running program per user. The first start holds a lock and listens on a local socket; a later start
// finds the lock taken, tells the running program to come forward and leaves, so two tray icons never
// fight over the same shortcuts.
class SingleInstance : public QObject {
    Q_OBJECT

public:
    // `name` names the lock and the socket inside `folder` (the user's runtime folder in the program).
    SingleInstance(const QString& folder, const QString& name, QObject* parent = nullptr);
    ~SingleInstance() override;

    // The user's runtime folder ($XDG_RUNTIME_DIR, else the temporary folder).
    static QString defaultFolder();

    // True when this process is now the running program. False when another one runs: it has been asked
    // to come forward (when it answered within `wait` milliseconds).
    bool claim(int wait = 2000);

signals:
    // Another start asked the running program to come forward.
    void activationRequested();

private:
    QString socketPath() const;

    QString folder_;
    QString name_;
    std::unique_ptr<QLockFile> lock_;
    QLocalServer* server_ = nullptr;
};
