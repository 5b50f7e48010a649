#include "views/shell/LoginModel.h"

#include "ai/AICloudStore.h"
#include "support/Error.h"
#include "views/shell/LocalCloudServer.h"
#include "views/shell/ShellTasks.h"

namespace tavelo::shell {

LoginModel::LoginModel(QObject* parent) : QObject(parent) {}

QObject* LoginModel::cloudObject() const { return cloud_.data(); }

void LoginModel::setCloudObject(QObject* cloud) {
    auto* store = qobject_cast<AICloudStore*>(cloud);
    if (store == cloud_) return;
    cloud_ = store;
    emit cloudChanged();
}

QObject* LoginModel::localServerObject() const { return localServer_.data(); }

void LoginModel::setLocalServerObject(QObject* server) {
    auto* local = qobject_cast<LocalCloudServer*>(server);
    if (local == localServer_) return;
    localServer_ = local;
    emit localServerChanged();
}

bool LoginModel::begin(const QString& email, bool needsEmail) {
    if (isBusy_) return false;
    if (!cloud_) {
        setErrorText(QStringLiteral("クラウドの準備ができていません。"));
        return false;
    }
    if (needsEmail && email.trimmed().isEmpty()) {
        setNotice(QString());
        setErrorText(QStringLiteral("メールアドレスを入力してください。"));
        return false;
    }
    setErrorText(QString());
    setNotice(QString());
    setBusy(true);
    return true;
}

void LoginModel::finish(const QString& notice) {
    setBusy(false);
    setNotice(notice);
}

void LoginModel::fail(std::exception_ptr failure) {
    setBusy(false);
    // A request that an account change overtook says nothing.
    if (isCancellation(failure)) return;
    setErrorText(localizedDescription(failure));
}

void LoginModel::signIn(const QString& email, const QString& password) {
    if (!begin(email, true)) return;
    launch(cloud_->signIn(email.trimmed(), password), this, [this] {
        finish(QString());
        emit signedIn();
    }, [this](std::exception_ptr failure) { fail(failure); });
}

void LoginModel::registerAccount(const QString& email, const QString& password) {
    if (!begin(email, true)) return;
    launch(cloud_->registerAccount(email.trimmed(), password), this, [this] {
        finish(QStringLiteral("確認メールを送信しました。メールのリンクを開いてからログインしてください。"));
    }, [this](std::exception_ptr failure) { fail(failure); });
}

void LoginModel::resetPassword(const QString& email) {
    if (!begin(email, true)) return;
    launch(cloud_->resetPassword(email.trimmed()), this, [this] {
        finish(QStringLiteral("パスワード再設定のメールを送信しました。"));
    }, [this](std::exception_ptr failure) { fail(failure); });
}

void LoginModel::resendVerification(const QString& email, const QString& password) {
    if (!begin(email, true)) return;
    launch(cloud_->resendVerification(email.trimmed(), password), this, [this] {
        finish(QStringLiteral("確認メールを再送しました。"));
    }, [this](std::exception_ptr failure) { fail(failure); });
}

void LoginModel::connectPrivateServer(const QString& endpoint, const QString& connectionKey) {
    if (endpoint.trimmed().isEmpty()) {
        setErrorText(QStringLiteral("サーバーのURLを入力してください。"));
        return;
    }
    if (!begin()) return;
    launch(cloud_->connectPrivateServer(endpoint, connectionKey), this, [this] {
        finish(QString());
        emit signedIn();
    }, [this](std::exception_ptr failure) { fail(failure); });
}

void LoginModel::connectLocalServer() {
    if (!localServer_) return;
    localServer_->reload();
    const LocalServerReading& reading = localServer_->reading();
    if (!reading.owner) {
        setNotice(QString());
        setErrorText(reading.problem.value_or(
            QStringLiteral("このコンピューターでTaveloのサーバーが見つかりませんでした。")));
        return;
    }
    connectPrivateServer(reading.owner->endpoint, reading.owner->connectionKey);
}

void LoginModel::clearMessages() {
    setErrorText(QString());
    setNotice(QString());
}

void LoginModel::setBusy(bool value) {
    if (isBusy_ == value) return;
    isBusy_ = value;
    emit isBusyChanged();
}

void LoginModel::setErrorText(const QString& text) {
    if (errorText_ == text) return;
    errorText_ = text;
    emit errorTextChanged();
}

void LoginModel::setNotice(const QString& text) {
    if (notice_ == text) return;
    notice_ = text;
    emit noticeChanged();
}

} // namespace tavelo::shell
