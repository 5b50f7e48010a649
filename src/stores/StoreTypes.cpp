#include "stores/StoreTypes.h"

namespace tavelo {

QString StoreOperationError::message() const {
    switch (kind_) {
    case Kind::invalidEdit:
        return QStringLiteral("編集対象を確認できませんでした。予定を開き直してください。");
    case Kind::managedBusyBlock:
        return QStringLiteral("自動生成された「予定あり」は元の予定から管理してください。");
    }
    return {};
}

} // namespace tavelo
