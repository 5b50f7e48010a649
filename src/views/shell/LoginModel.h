#pragma once

#include <QObject>
#include <QPointer>
#include <QString>
#include <QtQml/qqmlregistration.h>

#include <exception>

namespace tavelo {
class AICloudStore;
}

namespace tavelo::shell {

class LocalCloudServer;

// The ways in while nobody is signed in: the hosted account (sign-in,
// registration, password reset, resending the confirmation mail), a private
// server, and the server on this computer. One request at a time; its
// outcome is a notice or an error shown under the form.
class LoginModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(QObject* cloud READ cloudObject WRITE setCloudObject NOTIFY cloudChanged)
    Q_PROPERTY(QObject* localServer READ localServerObject WRITE setLocalServerObject NOTIFY localServerChanged)
    Q_PROPERTY(bool isBusy READ isBusy NOTIFY isBusyChanged)
    Q_PROPERTY(QString errorText READ errorText NOTIFY errorTextChanged)
    Q_PROPERTY(QString notice READ notice NOTIFY noticeChanged)

public:
    explicit LoginModel(QObject* parent = nullptr);

    QObject* cloudObject() const;
    void setCloudObject(QObject* cloud);
    QObject* localServerObject() const;
    void setLocalServerObject(QObject* server);

    bool isBusy() const { return isBusy_; }
    QString errorText() const { return errorText_; }
    QString notice() const { return notice_; }

    Q_INVOKABLE void signIn(const QString& email, const QString& password);
    Q_INVOKABLE void registerAccount(const QString& email, const QString& password);
    Q_INVOKABLE void resetPassword(const QString& email);
    Q_INVOKABLE void resendVerification(const QString& email, const QString& password);
    Q_INVOKABLE void connectPrivateServer(const QString& endpoint, const QString& connectionKey);
    // Connects to the server on this computer with the owner file's key.
    Q_INVOKABLE void connectLocalServer();
    Q_INVOKABLE void clearMessages();

signals:
    void cloudChanged();
    void localServerChanged();
    void isBusyChanged();
    void errorTextChanged();
    void noticeChanged();
    // A sign-in or connection succeeded.
    void signedIn();

private:
    // False (with a message) when a request is running or nothing can be
    // asked.
    bool begin(const QString& email = QString(), bool needsEmail = false);
    void finish(const QString& notice);
    void fail(std::exception_ptr failure);
    void setBusy(bool value);
    void setErrorText(const QString& text);
    void setNotice(const QString& text);

    QPointer<AICloudStore> cloud_;
    QPointer<LocalCloudServer> localServer_;
    bool isBusy_ = false;
    QString errorText_;
    QString notice_;
};

} // namespace tavelo::shell
