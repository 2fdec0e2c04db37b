#include "fuzzinput.h"
#include "updater.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace {

QByteArray manifest(const Updater::Release& release) {
    QJsonObject object{{QStringLiteral("version"), release.version},
                       {QStringLiteral("zip"), release.zip},
                       {QStringLiteral("sha256"), release.sha256}};
    if (release.notes) {
        object.insert(QStringLiteral("notes"), *release.notes);
    }
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

// "Newer" must be a strict order, or an update could be offered back and forth between two versions.
void checkOrder(const QString& a, const QString& b, const QString& c) {
    require(!Updater::isNewer(a, a), "no version is newer than itself");
    require(!(Updater::isNewer(a, b) && Updater::isNewer(b, a)), "two versions are not each newer");
    require(!(Updater::isNewer(a, b) && Updater::isNewer(b, c)) || Updater::isNewer(a, c),
            "newer than newer is newer");
}

}  // namespace

// The whole input is a manifest; its first three lines are also three versions to compare.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    const QString a = QString::fromUtf8(input.until('\n'));
    const QString b = QString::fromUtf8(input.until('\n'));
    const QString c = QString::fromUtf8(input.until('\n'));
    checkOrder(a, b, c);

    const QByteArray body(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    const Result<Updater::Release> release = Updater::Release::decode(body);
    if (!release) {
        require(!release.failure().description().isEmpty(), "a refused manifest says why");
        return 0;
    }
    const Result<Updater::Release> again = Updater::Release::decode(manifest(release.value()));
    require(again.ok() && again.value() == release.value(), "a decoded manifest reads the same again");
    checkOrder(release.value().version, a, b);
    return 0;
}
