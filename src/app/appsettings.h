#pragma once

#include <QObject>
#include <QString>

#include <memory>

class QSettings;

// The user's choices that survive a restart, each kept under its own key in the settings file and read
// from it on every access. Every write notifies, so all views showing a setting follow a change made
// anywhere else. Main thread only.
class AppSettings : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool onboarded READ onboarded WRITE setOnboarded NOTIFY onboardedChanged)
    Q_PROPERTY(QString email READ email WRITE setEmail NOTIFY emailChanged)
    Q_PROPERTY(QString resume READ resume WRITE setResume NOTIFY resumeChanged)
    Q_PROPERTY(
        QString jobDescription READ jobDescription WRITE setJobDescription NOTIFY jobDescriptionChanged)
    Q_PROPERTY(QString extraInstructions READ extraInstructions WRITE setExtraInstructions NOTIFY
                   extraInstructionsChanged)
    Q_PROPERTY(bool autoAnswer READ autoAnswer WRITE setAutoAnswer NOTIFY autoAnswerChanged)
    Q_PROPERTY(bool useMic READ useMic WRITE setUseMic NOTIFY useMicChanged)
    Q_PROPERTY(double overlayOpacity READ overlayOpacity WRITE setOverlayOpacity NOTIFY overlayOpacityChanged)
    Q_PROPERTY(bool clickThrough READ clickThrough WRITE setClickThrough NOTIFY clickThroughChanged)

public:
    // A store over the INI file at `path`.
    explicit AppSettings(const QString& path, QObject* parent = nullptr);
    ~AppSettings() override;

    // The program's store: $XDG_CONFIG_HOME/Tallowind/settings.ini.
    static AppSettings& shared();
    static QString defaultPath();

    // The underlying store, for state that belongs beside the settings (the overlay's frame).
    QSettings& store() { return *store_; }

    bool onboarded() const;
    QString email() const;
    QString resume() const;
    QString jobDescription() const;
    QString extraInstructions() const;
    bool autoAnswer() const;
    bool useMic() const;
    double overlayOpacity() const;
    bool clickThrough() const;

    void setOnboarded(bool value);
    void setEmail(const QString& value);
    void setResume(const QString& value);
    void setJobDescription(const QString& value);
    void setExtraInstructions(const QString& value);
    void setAutoAnswer(bool value);
    void setUseMic(bool value);
    void setOverlayOpacity(double value);
    void setClickThrough(bool value);

signals:
    void onboardedChanged();
    void emailChanged();
    void resumeChanged();
    void jobDescriptionChanged();
    void extraInstructionsChanged();
    void autoAnswerChanged();
    void useMicChanged();
    void overlayOpacityChanged();
    void clickThroughChanged();

private:
    bool readBool(const char* key, bool fallback) const;
    QString readString(const char* key) const;
    void write(const char* key, const QVariant& value, void (AppSettings::*changed)());

    std::unique_ptr<QSettings> store_;
};
