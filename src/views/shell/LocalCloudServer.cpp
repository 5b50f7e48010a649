#include "views/shell/LocalCloudServer.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>

#include <sys/stat.h>

namespace tavelo::shell {

namespace {

const char* const kDamaged = "このコンピューターのサーバーの接続情報を読み取れませんでした（owner.json の形式が正しくありません）。";

} // namespace

QString standardLocalServerOwnerPath() {
    QString base = qEnvironmentVariable("XDG_CONFIG_HOME");
    if (base.isEmpty()) base = QDir::home().filePath(QStringLiteral(".config"));
    return QDir(base).filePath(QStringLiteral("tavelo-cloud/owner.json"));
}

LocalServerReading readLocalServerOwner(const QString& path) {
    LocalServerReading reading;
    struct stat info {};
    const QByteArray native = QFile::encodeName(path);
    if (::stat(native.constData(), &info) != 0) return reading;
    reading.exists = true;
    if (!S_ISREG(info.st_mode)) {
        reading.problem = QString::fromUtf8(kDamaged);
        return reading;
    }
    if ((info.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        reading.problem = QStringLiteral(
            "%1 はほかのユーザーも読み取れるため使用しません。接続キーを守るため、"
            "「chmod 600 %1」で自分だけが読めるようにしてください。")
                              .arg(QDir::toNativeSeparators(path));
        return reading;
    }

    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        reading.problem = QStringLiteral("%1 を開けませんでした。").arg(QDir::toNativeSeparators(path));
        return reading;
    }
    // The file is a few hundred bytes; anything far larger is not ours.
    const QByteArray data = file.read(64 * 1024);
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(data, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) {
        reading.problem = QString::fromUtf8(kDamaged);
        return reading;
    }
    const QJsonObject object = document.object();
    const QJsonValue endpoint = object.value(QStringLiteral("endpoint"));
    const QJsonValue key = object.value(QStringLiteral("connectionKey"));
    if (!endpoint.isString() || !key.isString() || endpoint.toString().trimmed().isEmpty() ||
        key.toString().isEmpty()) {
        reading.problem = QString::fromUtf8(kDamaged);
        return reading;
    }
    reading.owner = LocalServerOwner{endpoint.toString().trimmed(), key.toString()};
    return reading;
}

LocalCloudServer::LocalCloudServer(QString ownerPath, QObject* parent)
    : QObject(parent), ownerPath_(std::move(ownerPath)), reading_(readLocalServerOwner(ownerPath_)) {}

void LocalCloudServer::reload() {
    LocalServerReading next = readLocalServerOwner(ownerPath_);
    const bool same = next.exists == reading_.exists && next.problem == reading_.problem &&
                      endpoint() == (next.owner ? next.owner->endpoint : QString());
    reading_ = std::move(next);
    if (!same) emit changed();
}

} // namespace tavelo::shell
