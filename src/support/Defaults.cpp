#include "support/Defaults.h"

#include <QSettings>

namespace tavelo {

namespace {

std::optional<bool> parseBool(const QString& text) {
    if (text == QLatin1String("true") || text == QLatin1String("1")) return true;
    if (text == QLatin1String("false") || text == QLatin1String("0")) return false;
    return std::nullopt;
}

} // namespace

struct SettingsDefaults::Impl {
    std::unique_ptr<QSettings> settings;
};

SettingsDefaults::SettingsDefaults() : impl_(std::make_unique<Impl>()) {
    impl_->settings = std::make_unique<QSettings>(QSettings::IniFormat, QSettings::UserScope,
                                                  QStringLiteral("Tavelo"), QStringLiteral("jp.tavelo.app"));
}

SettingsDefaults::SettingsDefaults(const QString& filePath) : impl_(std::make_unique<Impl>()) {
    impl_->settings = std::make_unique<QSettings>(filePath, QSettings::IniFormat);
}

SettingsDefaults::~SettingsDefaults() {
    if (impl_ && impl_->settings) impl_->settings->sync();
}

std::optional<QString> SettingsDefaults::string(const QString& key) const {
    const QVariant value = impl_->settings->value(key);
    if (!value.isValid()) return std::nullopt;
    return value.toString();
}

std::optional<bool> SettingsDefaults::boolean(const QString& key) const {
    const QVariant value = impl_->settings->value(key);
    if (!value.isValid()) return std::nullopt;
    if (value.typeId() == QMetaType::Bool) return value.toBool();
    return parseBool(value.toString());
}

void SettingsDefaults::setString(const QString& key, const QString& value) {
    impl_->settings->setValue(key, value);
    impl_->settings->sync();
}

void SettingsDefaults::setBool(const QString& key, bool value) {
    impl_->settings->setValue(key, value);
    impl_->settings->sync();
}

void SettingsDefaults::remove(const QString& key) {
    impl_->settings->remove(key);
    impl_->settings->sync();
}

QString SettingsDefaults::fileName() const { return impl_->settings->fileName(); }

std::optional<QString> MemoryDefaults::string(const QString& key) const {
    auto it = values_.find(key);
    if (it == values_.end()) return std::nullopt;
    return it->second;
}

std::optional<bool> MemoryDefaults::boolean(const QString& key) const {
    auto it = values_.find(key);
    if (it == values_.end()) return std::nullopt;
    return parseBool(it->second);
}

void MemoryDefaults::setString(const QString& key, const QString& value) { values_[key] = value; }

void MemoryDefaults::setBool(const QString& key, bool value) {
    values_[key] = value ? QStringLiteral("true") : QStringLiteral("false");
}

void MemoryDefaults::remove(const QString& key) { values_.erase(key); }

} // namespace tavelo
