#pragma once

#include <QObject>
#include "views/support/SourceBinding.h"
#include <qqmlintegration.h>

#include "views/calendar/DayListModel.h"

#include <vector>

namespace tavelo {

class AppStore;
class SceneState;

// The month on screen: six weeks of days from the Sunday before the first,
// each with its first entries and "他 N 件" for the rest.
class MonthModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(QObject* store READ store WRITE setStore NOTIFY storeChanged)
    Q_PROPERTY(QObject* scene READ scene WRITE setScene NOTIFY sceneChanged)
    Q_PROPERTY(int maxItemsPerDay READ maxItemsPerDay WRITE setMaxItemsPerDay NOTIFY maxItemsPerDayChanged)
    Q_PROPERTY(QString titleText READ titleText NOTIFY titleTextChanged)
    Q_PROPERTY(tavelo::DayListModel* days READ days CONSTANT)

public:
    explicit MonthModel(QObject* parent = nullptr);

    QObject* store() const;
    void setStore(QObject* store);
    QObject* scene() const;
    void setScene(QObject* scene);
    int maxItemsPerDay() const { return maxItemsPerDay_; }
    void setMaxItemsPerDay(int count);
    QString titleText() const { return titleText_; }
    DayListModel* days() const { return days_; }

    Q_INVOKABLE void openDetail(const QString& eventId, int dayIndex);
    Q_INVOKABLE bool isDetailPresented(const QString& eventId, int dayIndex) const;
    // Double click on a day: the editor opens with an all-day draft of it.
    Q_INVOKABLE void createOnDay(int dayIndex);
    Q_INVOKABLE void selectDay(int dayIndex);
    Q_INVOKABLE void moveSelection(int days);
    Q_INVOKABLE void rebuild();

signals:
    void storeChanged();
    void sceneChanged();
    void maxItemsPerDayChanged();
    void titleTextChanged();

private:
    SourceBinding<AppStore> store_;
    SourceBinding<SceneState> scene_;
    DayListModel* days_;
    int maxItemsPerDay_ = 4;
    QString titleText_;
    std::vector<Date> gridDays_;
};

} // namespace tavelo
