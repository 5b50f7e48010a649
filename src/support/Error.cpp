#include "support/Error.h"

namespace tavelo {

const char* Error::what() const noexcept {
    if (what_.empty()) {
        if (auto text = errorDescription())
            what_ = text->toStdString();
        else
            what_ = std::string(domain()) + " error " + std::to_string(code());
    }
    return what_.c_str();
}

QString localizedDescription(const std::exception& error) {
    if (const auto* typed = dynamic_cast<const Error*>(&error)) {
        if (auto text = typed->errorDescription()) return *text;
        return QStringLiteral("操作を完了できませんでした。（%1 エラー %2）")
            .arg(QString::fromLatin1(typed->domain()))
            .arg(typed->code());
    }
    return QStringLiteral("操作を完了できませんでした。（%1）").arg(QString::fromLocal8Bit(error.what()));
}

QString localizedDescription(std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        return localizedDescription(e);
    } catch (...) {
        return QStringLiteral("操作を完了できませんでした。");
    }
}

bool isCancellation(std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const CancellationError&) {
        return true;
    } catch (...) {
        return false;
    }
}

} // namespace tavelo
