#pragma once

#include <QString>

#include <map>
#include <memory>
#include <optional>

namespace tavelo {

// The per-user defaults store: small values under string keys that survive a
// restart. Production keeps them in a QSettings file; tests may use the
// in-memory form. Used from the main thread only.
class Defaults {
public:
    virtual ~Defaults() = default;

    // The value under `key` as text; nothing when the key is absent.
    virtual std::optional<QString> string(const QString& key) const = 0;
    // The value under `key` as a boolean; nothing when the key is absent or
    // holds something that is not a boolean.
    virtual std::optional<bool> boolean(const QString& key) const = 0;
    virtual void setString(const QString& key, const QString& value) = 0;
    virtual void setBool(const QString& key, bool value) = 0;
    virtual void remove(const QString& key) = 0;
};

// Defaults in an INI file. Without a path the file is the user's
// "$XDG_CONFIG_HOME/Tavelo/jp.tavelo.app.conf". Every change is written
// through at once, so a crash loses nothing already set.
class SettingsDefaults final : public Defaults {
public:
    SettingsDefaults();
    explicit SettingsDefaults(const QString& filePath);
    ~SettingsDefaults() override;

    std::optional<QString> string(const QString& key) const override;
    std::optional<bool> boolean(const QString& key) const override;
    void setString(const QString& key, const QString& value) override;
    void setBool(const QString& key, bool value) override;
    void remove(const QString& key) override;

    QString fileName() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Defaults that live as long as the object.
class MemoryDefaults final : public Defaults {
public:
    std::optional<QString> string(const QString& key) const override;
    std::optional<bool> boolean(const QString& key) const override;
    void setString(const QString& key, const QString& value) override;
    void setBool(const QString& key, bool value) override;
    void remove(const QString& key) override;

private:
    std::map<QString, QString> values_;
};

} // namespace tavelo
