// AppStore: tags and their order.

#include "stores/AppStore.h"
#include "stores/AppStoreInternal.h"

#include <QLoggingCategory>
#include <QThreadPool>

#include <QCoro/QCoroTimer>

#include "support/Observable.h"

#include "stores/EventAccessPolicy.h"
#include "stores/EventEquality.h"
#include "stores/EventMutationEngine.h"
#include "support/TextFolding.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iterator>
#include <set>
#include <utility>

namespace tavelo {

using appstore::releaseInBackground;

namespace {

const QString& blankTagNameMessage() {
    static const QString text = QStringLiteral("タグ名を入力してください");
    return text;
}
const QString& duplicateTagNameMessage() {
    static const QString text = QStringLiteral("同じ名前のタグがあります");
    return text;
}


} // namespace

// --- Tags ----------------------------------------------------------------

std::optional<QString> AppStore::validatedTagName(const QString& name, const std::optional<UUID>& excluding) const {
    const QString trimmed = name.trimmed();
    if (trimmed.isEmpty()) return blankTagNameMessage();
    const QString folded = foldedIgnoringCaseAndDiacritics(trimmed, FoldingLocale::current);
    for (const Tag& tag : tags_) {
        if (excluding && tag.id == *excluding) continue;
        if (foldedIgnoringCaseAndDiacritics(tag.name.trimmed(), FoldingLocale::current) == folded)
            return duplicateTagNameMessage();
    }
    return std::nullopt;
}

void AppStore::normalizeTagOrder(std::vector<Tag>& tags) {
    for (std::size_t i = 0; i < tags.size(); ++i) tags[i].sortOrder = static_cast<int>(i);
}

QCoro::Task<bool> AppStore::addTag(Tag tag) {
    QPointer<AppStore> self(this);
    const auto hold = co_await holdTransaction();
    if (!hold) co_return false;

    if (const auto message = validatedTagName(tag.name, tag.id)) {
        recordMessage(*message);
        co_return false;
    }
    tag.name = tag.name.trimmed();
    auto tags = tags_;
    tags.push_back(std::move(tag));
    co_return co_await commitTags(std::move(tags));
}

QCoro::Task<bool> AppStore::updateTag(Tag tag) {
    QPointer<AppStore> self(this);
    const auto hold = co_await holdTransaction();
    if (!hold) co_return false;

    if (const auto message = validatedTagName(tag.name, tag.id)) {
        recordMessage(*message);
        co_return false;
    }
    auto tags = tags_;
    const auto existing = std::find_if(tags.begin(), tags.end(), [&](const Tag& t) { return t.id == tag.id; });
    if (existing == tags.end()) co_return false;
    tag.name = tag.name.trimmed();
    *existing = std::move(tag);
    co_return co_await commitTags(std::move(tags));
}

QCoro::Task<bool> AppStore::deleteTag(UUID tagID) {
    QPointer<AppStore> self(this);
    const auto hold = co_await holdTransaction();
    if (!hold) co_return false;

    if (std::none_of(tags_.begin(), tags_.end(), [&](const Tag& t) { return t.id == tagID; })) co_return false;
    Undo undo = undoPoint();
    auto tags = tags_;
    std::erase_if(tags, [&](const Tag& t) { return t.id == tagID; });
    normalizeTagOrder(tags);
    setTags(std::move(tags));
    // The events that wore the tag lose it where they stand.
    for (std::size_t i = 0; i < events_.size(); ++i) {
        if (events_[i].tagID != tagID) continue;
        undo.edited.emplace_back(i, events_[i]);
        events_[i].tagID.reset();
    }
    if (!undo.edited.empty()) emit eventsChanged();
    co_return co_await persistOrRollBack(std::move(undo), std::nullopt);
}

QCoro::Task<bool> AppStore::moveTags(std::set<int> fromOffsets, int toOffset) {
    QPointer<AppStore> self(this);
    const auto hold = co_await holdTransaction();
    if (!hold) co_return false;

    std::vector<Tag> moved;
    std::vector<Tag> staying;
    std::size_t insertAt = 0; // staying tags that stand before `toOffset`
    for (std::size_t i = 0; i < tags_.size(); ++i) {
        if (fromOffsets.contains(static_cast<int>(i))) {
            moved.push_back(tags_[i]);
        } else {
            if (static_cast<long long>(i) < toOffset) ++insertAt;
            staying.push_back(tags_[i]);
        }
    }
    staying.insert(staying.begin() + static_cast<std::ptrdiff_t>(insertAt), std::make_move_iterator(moved.begin()),
                   std::make_move_iterator(moved.end()));
    co_return co_await commitTags(std::move(staying));
}

QCoro::Task<bool> AppStore::setTagOrder(std::vector<UUID> tagIDs) {
    QPointer<AppStore> self(this);
    const auto hold = co_await holdTransaction();
    if (!hold) co_return false;

    std::vector<Tag> ordered;
    ordered.reserve(tags_.size());
    std::vector<bool> placed(tags_.size(), false);
    for (const UUID& id : tagIDs) {
        for (std::size_t i = 0; i < tags_.size(); ++i) {
            if (placed[i] || tags_[i].id != id) continue;
            ordered.push_back(tags_[i]);
            placed[i] = true;
            break;
        }
    }
    for (std::size_t i = 0; i < tags_.size(); ++i)
        if (!placed[i]) ordered.push_back(tags_[i]);
    co_return co_await commitTags(std::move(ordered));
}

QCoro::Task<bool> AppStore::commitTags(std::vector<Tag> tags) {
    normalizeTagOrder(tags);
    // Saved even when nothing changed: every tag operation saves, and its
    // success clears an older message and its retry.
    Undo undo = undoPoint();
    setTags(std::move(tags));
    co_return co_await persistOrRollBack(std::move(undo), std::nullopt);
}


} // namespace tavelo
