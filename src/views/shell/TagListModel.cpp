#include "views/shell/TagListModel.h"

#include "stores/AppStore.h"
#include "views/support/RowDiff.h"
#include "views/shell/ShellTasks.h"

#include <algorithm>

namespace tavelo::shell {

TagListModel::TagListModel(QObject* parent) : QAbstractListModel(parent) {}

QObject* TagListModel::storeObject() const { return store_.get(); }

void TagListModel::setStoreObject(QObject* object) {
    auto* store = qobject_cast<AppStore*>(object);
    if (!store_.follow(store)) return;
    store_.on({&AppStore::tagsChanged, &AppStore::calendarsChanged}, this, &TagListModel::refresh);
    store_.on(&AppStore::calendarsChanged, this, &TagListModel::calendarChoicesChanged);
    refresh();
    emit storeChanged();
    emit calendarChoicesChanged();
}

QString TagListModel::ruleText(const TagRule& rule, const AppStore& store) {
    if (const auto* title = rule.condition.asTitleContains())
        return QStringLiteral("タイトルに「%1」を含む").arg(title->text);
    if (const auto* calendar = rule.condition.asCalendarEquals()) {
        for (const CalendarSource& source : store.calendars())
            if (source.id == calendar->calendarID) return QStringLiteral("カレンダーが「%1」").arg(source.name);
        return QStringLiteral("カレンダーが（削除済み）");
    }
    return {};
}

void TagListModel::refresh() {
    std::vector<Row> next;
    if (store_) {
        for (const Tag& tag : store_->tags()) {
            Row row{tag.id.toString(), tag.name, tag.colorHex,
                    tag.weeklyTargetMinutes ? *tag.weeklyTargetMinutes / 60.0 : 0.0, tag.warnsWhenExceeded, {}};
            for (const TagRule& rule : tag.rules) row.rules.push_back(ruleText(rule, *store_));
            next.push_back(std::move(row));
        }
    }
    RowDiff::replaceRows(*this, rows_, std::move(next), [](const Row& r) { return r.tagID; });
}

QVariantList TagListModel::calendarChoices() const {
    QVariantList list;
    if (store_)
        for (const CalendarSource& calendar : store_->calendars())
            list.push_back(QVariantMap{{QStringLiteral("calendarID"), calendar.id.toString()},
                                       {QStringLiteral("name"), calendar.name}});
    return list;
}

int TagListModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(rows_.size());
}

QVariant TagListModel::data(const QModelIndex& index, int role) const {
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid)) return {};
    const Row& row = rows_[static_cast<std::size_t>(index.row())];
    switch (role) {
    case Qt::DisplayRole:
    case NameRole: return row.name;
    case TagIDRole: return row.tagID;
    case ColorRole: return row.color;
    case WeeklyTargetHoursRole: return row.weeklyTargetHours;
    case WarnsRole: return row.warns;
    case RulesRole: return row.rules;
    default: return {};
    }
}

QHash<int, QByteArray> TagListModel::roleNames() const {
    return {{TagIDRole, "tagID"}, {NameRole, "name"}, {ColorRole, "tagColor"},
            {WeeklyTargetHoursRole, "weeklyTargetHours"}, {WarnsRole, "warnsWhenExceeded"}, {RulesRole, "rules"}};
}

const Tag* TagListModel::tagAt(int row) const {
    if (!store_ || row < 0 || row >= static_cast<int>(rows_.size())) return nullptr;
    const auto id = UUID::fromString(rows_[static_cast<std::size_t>(row)].tagID);
    for (const Tag& tag : store_->tags())
        if (id && tag.id == *id) return &tag;
    return nullptr;
}

void TagListModel::update(int row, const std::function<void(Tag&)>& change) {
    const Tag* stored = tagAt(row);
    if (!stored) return;
    const UUID id = stored->id;
    const auto inFlight = std::find_if(editsInFlight_.begin(), editsInFlight_.end(), [&](const Tag& t) { return t.id == id; });
    const Tag& base = inFlight != editsInFlight_.end() ? *inFlight : *stored;
    Tag edited = base;
    change(edited);
    if (edited == base) return;
    if (inFlight != editsInFlight_.end()) *inFlight = edited;
    else editsInFlight_.push_back(edited);
    // Once the store is done with the newest edit, the stored tag is the base again.
    const auto settled = [this, sent = edited] {
        std::erase_if(editsInFlight_, [&](const Tag& t) { return t == sent; });
    };
    launch(store_->updateTag(std::move(edited)), this, [settled](bool) { settled(); },
           [settled](std::exception_ptr) { settled(); });
}

bool TagListModel::addTag(const QString& name, const QString& color) {
    if (!store_) return false;
    if (const auto message = store_->validatedTagName(name, std::nullopt)) {
        setNameError(*message);
        return false;
    }
    setNameError(QString());
    Tag tag;
    tag.id = UUID::random();
    tag.name = name.trimmed();
    tag.colorHex = color;
    tag.sortOrder = static_cast<int>(store_->tags().size());
    launch(store_->addTag(std::move(tag)), this);
    return true;
}

bool TagListModel::renameTag(int row, const QString& name) {
    const Tag* tag = tagAt(row);
    if (!tag) return false;
    if (const auto message = store_->validatedTagName(name, tag->id)) {
        setNameError(*message);
        return false;
    }
    setNameError(QString());
    update(row, [&](Tag& t) { t.name = name.trimmed(); });
    return true;
}

void TagListModel::setColor(int row, const QString& color) {
    update(row, [&](Tag& t) { t.colorHex = color; });
}

void TagListModel::setWeeklyTarget(int row, double hours, bool warnsWhenExceeded) {
    update(row, [&](Tag& t) {
        if (hours > 0) t.weeklyTargetMinutes = static_cast<int>(std::lround(hours * 60));
        else t.weeklyTargetMinutes.reset();
        t.warnsWhenExceeded = hours > 0 && warnsWhenExceeded;
    });
}

void TagListModel::moveTag(int from, int to) {
    const int count = static_cast<int>(rows_.size());
    if (!store_ || from < 0 || from >= count || to < 0 || to >= count || from == to) return;
    // The store places the moved tag before the tag now at its offset.
    launch(store_->moveTags({from}, to > from ? to + 1 : to), this);
}

void TagListModel::deleteTag(int row) {
    if (const Tag* tag = tagAt(row)) launch(store_->deleteTag(tag->id), this);
}

void TagListModel::addTitleRule(int row, const QString& text) {
    if (text.trimmed().isEmpty()) return;
    update(row, [&](Tag& t) { t.rules.push_back(TagRule{UUID::random(), TagRuleCondition::titleContains(text.trimmed())}); });
}

void TagListModel::addCalendarRule(int row, const QString& calendarID) {
    const auto id = UUID::fromString(calendarID);
    if (!id) return;
    update(row, [&](Tag& t) { t.rules.push_back(TagRule{UUID::random(), TagRuleCondition::calendarEquals(*id)}); });
}

void TagListModel::removeRule(int row, int ruleIndex) {
    update(row, [&](Tag& t) {
        if (ruleIndex >= 0 && ruleIndex < static_cast<int>(t.rules.size())) t.rules.erase(t.rules.begin() + ruleIndex);
    });
}

void TagListModel::setNameError(const QString& text) {
    if (nameError_ == text) return;
    nameError_ = text;
    emit nameErrorChanged();
}

} // namespace tavelo::shell
