#pragma once

#include <QObject>
#include <QString>
#include <QtQml/qqmlregistration.h>

#include <optional>

namespace tavelo {
class AICloudStore;
}

namespace tavelo::shell {

// The Tavelo server running on this computer, as it announces itself to its
// owner: "$XDG_CONFIG_HOME/tavelo-cloud/owner.json" holds its address and the
// owner's connection key. The file must be readable by this user only.
struct LocalServerOwner {
    QString endpoint;
    QString connectionKey;
};

struct LocalServerReading {
    std::optional<LocalServerOwner> owner;
    // Why the file cannot be used; nothing when it is missing or usable.
    std::optional<QString> problem;
    bool exists = false;
};

// Reads the owner file. A missing file is no problem (there is simply no
// local server); a file others can read, a damaged one or one of another
// shape is refused with a message.
LocalServerReading readLocalServerOwner(const QString& path);
// "$XDG_CONFIG_HOME/tavelo-cloud/owner.json" (~/.config when unset).
QString standardLocalServerOwnerPath();

// The one-click way in to the server on this computer.
class LocalCloudServer : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("Provided by the application")
    Q_PROPERTY(bool isAvailable READ isAvailable NOTIFY changed)
    Q_PROPERTY(QString problem READ problem NOTIFY changed)
    Q_PROPERTY(QString endpoint READ endpoint NOTIFY changed)

public:
    explicit LocalCloudServer(QString ownerPath = standardLocalServerOwnerPath(), QObject* parent = nullptr);

    // The file exists (usable or not): the button shows.
    bool isAvailable() const { return reading_.exists; }
    QString problem() const { return reading_.problem.value_or(QString()); }
    QString endpoint() const { return reading_.owner ? reading_.owner->endpoint : QString(); }
    const LocalServerReading& reading() const { return reading_; }
    const QString& ownerPath() const { return ownerPath_; }

    // Reads the file again.
    Q_INVOKABLE void reload();

signals:
    void changed();

private:
    QString ownerPath_;
    LocalServerReading reading_;
};

} // namespace tavelo::shell
