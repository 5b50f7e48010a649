#pragma once

#include <QAbstractListModel>
#include "views/support/SourceBinding.h"
#include <QtQml/qqmlregistration.h>

#include "models/Tag.h"

#include <functional>
#include <vector>

namespace tavelo {
class RowDiff;
class AppStore;
}

namespace tavelo::shell {

// The tags in their order, with their weekly targets and rules, and the
// operations of the tag settings. Every change goes through the store; a
// refused name comes back in `nameError`.
class TagListModel : public QAbstractListModel {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(QObject* store READ storeObject WRITE setStoreObject NOTIFY storeChanged)
    Q_PROPERTY(QString nameError READ nameError NOTIFY nameErrorChanged)
    Q_PROPERTY(QVariantList calendarChoices READ calendarChoices NOTIFY calendarChoicesChanged)

public:
    enum Role {
        TagIDRole = Qt::UserRole + 1,
        NameRole,
        ColorRole,
        WeeklyTargetHoursRole,
        WarnsRole,
        RulesRole,
    };
    struct Row {
        QString tagID;
        QString name;
        QString color;
        double weeklyTargetHours = 0; // 0: none
        bool warns = false;
        QStringList rules;
        bool operator==(const Row&) const = default;
    };

    explicit TagListModel(QObject* parent = nullptr);

    QObject* storeObject() const;
    void setStoreObject(QObject* store);
    QString nameError() const { return nameError_; }
    QVariantList calendarChoices() const;

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    // False, with `nameError`, when the store would refuse the name.
    Q_INVOKABLE bool addTag(const QString& name, const QString& color);
    Q_INVOKABLE bool renameTag(int row, const QString& name);
    Q_INVOKABLE void setColor(int row, const QString& color);
    // `hours` of zero or less removes the target.
    Q_INVOKABLE void setWeeklyTarget(int row, double hours, bool warnsWhenExceeded);
    // Moves the tag at `from` so that it stands at `to`.
    Q_INVOKABLE void moveTag(int from, int to);
    Q_INVOKABLE void deleteTag(int row);
    Q_INVOKABLE void addTitleRule(int row, const QString& text);
    Q_INVOKABLE void addCalendarRule(int row, const QString& calendarID);
    Q_INVOKABLE void removeRule(int row, int ruleIndex);

    // The text of one rule as the list shows it.
    static QString ruleText(const TagRule& rule, const AppStore& store);

signals:
    void storeChanged();
    void nameErrorChanged();
    void calendarChoicesChanged();

private:
    void refresh();
    const Tag* tagAt(int row) const;
    void update(int row, const std::function<void(Tag&)>& change);
    void setNameError(const QString& text);
    friend class tavelo::RowDiff;

    SourceBinding<AppStore> store_;
    std::vector<Row> rows_;
    QString nameError_;
    // The newest edit sent for each tag whose update the store has not
    // finished: the store queues its writes, so a second edit made meanwhile
    // must start from the first one, not from the stored tag.
    std::vector<Tag> editsInFlight_;
};

} // namespace tavelo::shell
