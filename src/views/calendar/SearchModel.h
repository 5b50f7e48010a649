#pragma once

#include <QObject>
#include "views/support/SourceBinding.h"
#include <qqmlintegration.h>

#include "models/AppSnapshot.h"
#include "views/calendar/CalendarItemModel.h"

#include <optional>
#include <vector>

namespace tavelo {

class AppStore;
class SceneState;

// Search as you type: the results of the query over the visible events,
// grouped by day (the `section` role), past events only when the user asked
// for them.
class SearchModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(QObject* store READ store WRITE setStore NOTIFY storeChanged)
    Q_PROPERTY(QObject* scene READ scene WRITE setScene NOTIFY sceneChanged)
    Q_PROPERTY(QString query READ query WRITE setQuery NOTIFY queryChanged)
    Q_PROPERTY(bool includePast READ includePast WRITE setIncludePast NOTIFY includePastChanged)
    Q_PROPERTY(QString summaryText READ summaryText NOTIFY summaryTextChanged)
    Q_PROPERTY(tavelo::CalendarItemModel* results READ results CONSTANT)

public:
    explicit SearchModel(QObject* parent = nullptr);
    ~SearchModel() override;

    QObject* store() const;
    void setStore(QObject* store);
    QObject* scene() const;
    void setScene(QObject* scene);
    QString query() const { return query_; }
    void setQuery(const QString& query);
    bool includePast() const;
    // Saved in the preferences through the store.
    void setIncludePast(bool include);
    QString summaryText() const { return summaryText_; }
    CalendarItemModel* results() const { return results_; }

    Q_INVOKABLE void openDetail(const QString& eventId);
    Q_INVOKABLE void refresh();

signals:
    void storeChanged();
    void sceneChanged();
    void queryChanged();
    void includePastChanged();
    void summaryTextChanged();

private:
    void invalidateSnapshot();

    SourceBinding<AppStore> store_;
    SourceBinding<SceneState> scene_;
    CalendarItemModel* results_;
    QString query_;
    QString summaryText_;
    // The store's state as the search reads it, taken again only after the
    // store changed, not on every keystroke.
    std::optional<AppSnapshot> snapshot_;
};

} // namespace tavelo
