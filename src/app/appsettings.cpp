#include "appsettings.h"

#include <QDir>
#include <QSettings>

AppSettings::AppSettings(const QString& path, QObject* parent)
    : QObject(parent), store_(std::make_unique<QSettings>(path, QSettings::IniFormat)) {}

AppSettings::~AppSettings() = default;

QString AppSettings::defaultPath() {
    QString base = qEnvironmentVariable("XDG_CONFIG_HOME");
    if (base.isEmpty()) {
        base = QDir::homePath() + QStringLiteral("/.config");
    }
    return base + QStringLiteral("/Tallowind/settings.ini");
}

AppSettings& AppSettings::shared() {
    static AppSettings* instance = new AppSettings(defaultPath());  // never released, like the process
    return *instance;
}

bool AppSettings::readBool(const char* key, bool fallback) const {
    return store_->value(QLatin1String(key), fallback).toBool();
}

QString AppSettings::readString(const char* key) const {
    return store_->value(QLatin1String(key)).toString();
}

void AppSettings::write(const char* key, const QVariant& value, void (AppSettings::*changed)()) {
    store_->setValue(QLatin1String(key), value);
    store_->sync();
    (this->*changed)();
}

bool AppSettings::onboarded() const {
    return readBool("onboarded", false);
}
QString AppSettings::email() const {
    return readString("email");
}
QString AppSettings::resume() const {
    return readString("resume");
}
QString AppSettings::jobDescription() const {
    return readString("jobDescription");
}
QString AppSettings::extraInstructions() const {
    return readString("extraInstructions");
}
bool AppSettings::autoAnswer() const {
    return readBool("autoAnswer", true);
}
bool AppSettings::useMic() const {
    return readBool("useMic", true);
}
bool AppSettings::clickThrough() const {
    return readBool("clickThrough", false);
}

double AppSettings::overlayOpacity() const {
    bool ok = false;
    const double value = store_->value(QLatin1String("overlayOpacity")).toDouble(&ok);
    return ok ? value : 0.92;
}

void AppSettings::setOnboarded(bool value) {
    write("onboarded", value, &AppSettings::onboardedChanged);
}
void AppSettings::setEmail(const QString& value) {
    write("email", value, &AppSettings::emailChanged);
}
void AppSettings::setResume(const QString& value) {
    write("resume", value, &AppSettings::resumeChanged);
}
void AppSettings::setJobDescription(const QString& value) {
    write("jobDescription", value, &AppSettings::jobDescriptionChanged);
}
void AppSettings::setExtraInstructions(const QString& value) {
    write("extraInstructions", value, &AppSettings::extraInstructionsChanged);
}
void AppSettings::setAutoAnswer(bool value) {
    write("autoAnswer", value, &AppSettings::autoAnswerChanged);
}
void AppSettings::setUseMic(bool value) {
    write("useMic", value, &AppSettings::useMicChanged);
}
void AppSettings::setOverlayOpacity(double value) {
    write("overlayOpacity", value, &AppSettings::overlayOpacityChanged);
}
void AppSettings::setClickThrough(bool value) {
    write("clickThrough", value, &AppSettings::clickThroughChanged);
}
