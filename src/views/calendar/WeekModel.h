#pragma once

#include <QObject>
#include "views/support/SourceBinding.h"
#include <qqmlintegration.h>

#include "views/calendar/CalendarItemModel.h"
#include "views/calendar/DayListModel.h"
#include "views/timegrid/TimeGrid.h"

#include <optional>
#include <vector>

namespace tavelo {

class AppStore;
class SceneState;
class AICloudStore;
struct AICloudState;

// The week on screen: its days, all-day bars, timed entries in lanes, AI
// schedule runs, the current-time line, and the drags that create, move and
// resize events. Grid coordinates have the 60-point time gutter at x = 0 and
// the first shown hour at y = 0.
class WeekModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(QObject* store READ store WRITE setStore NOTIFY storeChanged)
    Q_PROPERTY(QObject* scene READ scene WRITE setScene NOTIFY sceneChanged)
    Q_PROPERTY(QObject* cloud READ cloud WRITE setCloud NOTIFY cloudChanged)
    Q_PROPERTY(double dayWidth READ dayWidth WRITE setDayWidth NOTIFY dayWidthChanged)
    Q_PROPERTY(int firstHour READ firstHour WRITE setFirstHour NOTIFY hoursChanged)
    Q_PROPERTY(int lastHour READ lastHour WRITE setLastHour NOTIFY hoursChanged)
    Q_PROPERTY(int initialScrollHour READ initialScrollHour CONSTANT)
    Q_PROPERTY(double gridHeight READ gridHeight NOTIFY hoursChanged)
    Q_PROPERTY(double gutterWidth READ gutterWidth CONSTANT)
    Q_PROPERTY(double hourHeight READ hourHeight CONSTANT)
    Q_PROPERTY(QString rangeText READ rangeText NOTIFY rangeTextChanged)
    Q_PROPERTY(int allDayRowCount READ allDayRowCount NOTIFY allDayRowCountChanged)
    Q_PROPERTY(int nowDayIndex READ nowDayIndex NOTIFY nowChanged)
    Q_PROPERTY(double nowY READ nowY NOTIFY nowChanged)
    Q_PROPERTY(tavelo::DayListModel* days READ days CONSTANT)
    Q_PROPERTY(tavelo::CalendarItemModel* allDayItems READ allDayItems CONSTANT)
    Q_PROPERTY(tavelo::CalendarItemModel* timedItems READ timedItems CONSTANT)
    Q_PROPERTY(tavelo::CalendarItemModel* aiItems READ aiItems CONSTANT)
    // The preview of the drag under way.
    Q_PROPERTY(bool dragActive READ dragActive NOTIFY dragChanged)
    Q_PROPERTY(QString dragKind READ dragKind NOTIFY dragChanged)
    Q_PROPERTY(QString dragEventId READ dragEventId NOTIFY dragChanged)
    Q_PROPERTY(int dragDayIndex READ dragDayIndex NOTIFY dragChanged)
    Q_PROPERTY(double dragTop READ dragTop NOTIFY dragChanged)
    Q_PROPERTY(double dragHeight READ dragHeight NOTIFY dragChanged)
    Q_PROPERTY(QString dragTimeText READ dragTimeText NOTIFY dragChanged)

public:
    explicit WeekModel(QObject* parent = nullptr);
    ~WeekModel() override;

    QObject* store() const;
    void setStore(QObject* store);
    QObject* scene() const;
    void setScene(QObject* scene);
    QObject* cloud() const;
    void setCloud(QObject* cloud);
    double dayWidth() const { return dayWidth_; }
    void setDayWidth(double width);
    int firstHour() const { return hours_.firstHour; }
    void setFirstHour(int hour);
    int lastHour() const { return hours_.lastHour; }
    void setLastHour(int hour);
    int initialScrollHour() const { return initialScrollHour_; }
    double gridHeight() const { return (hours_.lastHour - hours_.firstHour) * TimeGridMetrics::hourHeight; }
    double gutterWidth() const { return TimeGridMetrics::gutterWidth; }
    double hourHeight() const { return TimeGridMetrics::hourHeight; }
    QString rangeText() const { return rangeText_; }
    int allDayRowCount() const { return allDayRowCount_; }
    int nowDayIndex() const { return nowDayIndex_; }
    double nowY() const { return nowY_; }
    DayListModel* days() const { return days_; }
    CalendarItemModel* allDayItems() const { return allDayItems_; }
    CalendarItemModel* timedItems() const { return timedItems_; }
    CalendarItemModel* aiItems() const { return aiItems_; }

    bool dragActive() const { return drag_.drag().has_value(); }
    QString dragKind() const;
    QString dragEventId() const;
    int dragDayIndex() const { return preview_.dayIndex; }
    double dragTop() const { return preview_.top; }
    double dragHeight() const { return preview_.height; }
    QString dragTimeText() const { return preview_.timeText; }
    const std::optional<TimeGridDrag>& drag() const { return drag_.drag(); }
    const std::vector<Date>& weekDays() const { return weekDays_; }

    // The runs of AI schedules on `days` within the shown hours, marked as
    // such; a schedule running several times a day gets one lane per run.
    static std::vector<CalendarItemRow> aiRows(const AICloudState& state, const std::vector<Date>& days,
                                               TimeGridHours hours, const DateCalendar& calendar);

    // The time under a grid point; for tests and hit testing.
    std::optional<Date> slotDate(double x, double y) const;

    // Drag on empty space: the editor opens with the dragged interval.
    Q_INVOKABLE void beginCreate(double x, double y);
    Q_INVOKABLE void updateCreate(double x, double y);
    Q_INVOKABLE bool finishCreate();
    // Drag of an event body (move) or of its bottom edge (resize), by the
    // pointer's translation since the press.
    Q_INVOKABLE bool beginMove(const QString& eventId);
    Q_INVOKABLE void updateMove(double dx, double dy);
    Q_INVOKABLE bool beginResize(const QString& eventId);
    Q_INVOKABLE void updateResize(double dy);
    // Ends a move or resize and saves it through the store.
    Q_INVOKABLE bool finishDrag();
    Q_INVOKABLE void cancelDrag();

    // A click on an entry: `surface` is "weekTimed" or "weekAllDay".
    Q_INVOKABLE void openDetail(const QString& eventId, const QString& surface, int dayIndex, int lane);
    Q_INVOKABLE bool isDetailPresented(const QString& eventId, const QString& surface, int dayIndex, int lane) const;
    // Moves the selected day by `days` (arrow keys).
    Q_INVOKABLE void moveSelection(int days);
    Q_INVOKABLE void selectDay(int dayIndex);
    // Recomputes the current-time line; the view calls it every minute.
    Q_INVOKABLE void refreshNow();
    // Rebuilds everything from the store now.
    Q_INVOKABLE void rebuild();

signals:
    void storeChanged();
    void sceneChanged();
    void cloudChanged();
    void dayWidthChanged();
    void hoursChanged();
    void rangeTextChanged();
    void allDayRowCountChanged();
    void nowChanged();
    void dragChanged();
    // A move or resize reached the store: whether it was saved.
    void dragSaved(bool saved);

private:
    struct Preview {
        int dayIndex = -1;
        double top = 0;
        double height = 0;
        QString timeText;
        bool operator==(const Preview&) const = default;
    };
    void setDragState(std::optional<TimeGridDrag> drag);
    void rebuildTimedAndAllDay(const std::vector<DisplayedEvent>& entries);
    void rebuildAIItems();
    TimeGridGeometry geometry() const;
    const CalendarEvent* storedEvent(const UUID& id) const;
    void saveMove(UUID eventID, DateInterval interval);
    void saveResize(UUID eventID, DateInterval interval);

    SourceBinding<AppStore> store_;
    SourceBinding<SceneState> scene_;
    SourceBinding<AICloudStore> cloud_;
    DayListModel* days_;
    CalendarItemModel* allDayItems_;
    CalendarItemModel* timedItems_;
    CalendarItemModel* aiItems_;
    double dayWidth_ = 100;
    TimeGridHours hours_;
    int initialScrollHour_ = 8;
    std::vector<Date> weekDays_;
    QString rangeText_;
    int allDayRowCount_ = 0;
    int nowDayIndex_ = -1;
    double nowY_ = 0;
    TimeGridDragState drag_;
    // Where a move or resize started, for the translation to apply to.
    DateInterval dragOrigin_;
    Preview preview_;
};

} // namespace tavelo
