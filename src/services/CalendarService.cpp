#include "services/CalendarService.h"

namespace tavelo {

const QString& CalendarServiceWarning::backupPath() const {
    return std::visit([](const auto& v) -> const QString& { return v.backupPath; }, value_);
}

std::optional<QString> CalendarServiceWarning::errorDescription() const {
    if (const auto* corrupt = std::get_if<CorruptData>(&value_))
        return QStringLiteral("保存済みのデータを復元できなかったため、空の状態で開始しました。元のデータは %1 に退避しました。")
            .arg(corrupt->backupPath);
    const auto& unsupported = std::get<UnsupportedVersion>(value_);
    return QStringLiteral("新しい形式（バージョン %1）のデータはこの版では開けません。空の状態で開始し、元のデータは %2 に退避しました。")
        .arg(unsupported.version)
        .arg(unsupported.backupPath);
}

std::optional<QString> CalendarServiceError::errorDescription() const {
    return QStringLiteral("データを保存できませんでした。");
}

} // namespace tavelo
