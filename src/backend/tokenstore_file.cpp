#include "tokenstore.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStringDecoder>

namespace {

class FileTokenStore final : public TokenStore {
public:
    explicit FileTokenStore(QString path) : path_(std::move(path)) {}

    Lookup load() override {
        QFile file(path_);
        if (!file.open(QIODevice::ReadOnly)) {
            return {};
        }
        const QByteArray bytes = file.readAll();
        auto decoder = QStringDecoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
        QString text = decoder.decode(bytes);
        if (decoder.hasError()) {
            return {};
        }
        return {Availability::answered, std::move(text)};
    }

    Availability save(const QString& token) override {
        remove();
        if (!QDir().mkpath(QFileInfo(path_).absolutePath())) {
            return Availability::unreachable;
        }
        // The file is created private before the token is written, never widened afterwards.
        QSaveFile file(path_);
        if (!file.open(QIODevice::WriteOnly)) {
            return Availability::unreachable;
        }
        file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
        file.write(token.toUtf8());
        return file.commit() ? Availability::answered : Availability::unreachable;
    }

    Availability remove() override {
        QFile::remove(path_);
        return Availability::answered;
    }

private:
    QString path_;
};

}  // namespace

std::unique_ptr<TokenStore> makeFileTokenStore(QString path) {
    return std::make_unique<FileTokenStore>(std::move(path));
}
