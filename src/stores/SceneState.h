#pragma once

// Navigation and selection of one window: which screen shows, which date the
// calendar centres on, which event detail is open and on which surface, and
// what the editor is doing. Holds no calendar data.

#include <QObject>

#include "models/CalendarEvent.h"
#include "stores/EventDraft.h"
#include "support/Date.h"
#include "support/DateCalendar.h"
#include "support/EnumNames.h"
#include "support/UUID.h"

#include <functional>
#include <optional>
#include <variant>
#include <vector>

namespace tavelo {

// The screens QML switches between; their meta-object names are the names
// the scene's properties carry.
inline namespace scene {
Q_NAMESPACE

enum class NavigationItem { week, month, search, report, meetings, settings };
Q_ENUM_NS(NavigationItem)
TAVELO_STRING_ENUM(NavigationItem, "week", "month", "search", "report", "meetings", "settings")

enum class SettingsSection { accounts, tags, meetings, meetingGuides, aiCloud };
Q_ENUM_NS(SettingsSection)
TAVELO_STRING_ENUM(SettingsSection, "accounts", "tags", "meetings", "meetingGuides", "aiCloud")

} // namespace scene

// The editor being shown: a new event, or an existing one. Two edits of one
// event are the same presentation.
struct EditorPresentation {
    std::optional<UUID> editedEventID; // nothing: create

    static EditorPresentation create() { return {}; }
    static EditorPresentation edit(UUID eventID) { return {eventID}; }
    bool isCreate() const { return !editedEventID; }
    // "create", or "edit-" followed by the event's UUID.
    QString id() const;

    bool operator==(const EditorPresentation&) const = default;
};

// Where an event's detail opened. One event can stand on several surfaces at
// once (all-day row, timed lanes, month cells, search), so the surface and
// its payload are part of the anchor.
struct EventPopoverAnchor {
    struct WeekAllDay {
        Date day;
        bool operator==(const WeekAllDay&) const = default;
    };
    struct WeekTimed {
        Date day;
        int lane = 0;
        bool operator==(const WeekTimed&) const = default;
    };
    struct Month {
        Date day;
        bool operator==(const Month&) const = default;
    };
    struct Search {
        bool operator==(const Search&) const = default;
    };
    using Surface = std::variant<WeekAllDay, WeekTimed, Month, Search>;

    UUID eventID;
    Surface surface;

    bool operator==(const EventPopoverAnchor&) const = default;
};

class SceneState : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString navigation READ navigationName NOTIFY navigationChanged)
    Q_PROPERTY(QString calendarNavigation READ calendarNavigationName NOTIFY calendarNavigationChanged)
    Q_PROPERTY(QString settingsSection READ settingsSectionName NOTIFY settingsSectionChanged)
    Q_PROPERTY(double selectedDate READ selectedDateSeconds NOTIFY selectedDateChanged)
    Q_PROPERTY(QString selectedEventID READ selectedEventIDText NOTIFY selectedEventIDChanged)

public:
    explicit SceneState(Date selectedDate, QObject* parent = nullptr);

    NavigationItem navigation() const { return navigation_; }
    NavigationItem calendarNavigation() const { return calendarNavigation_; }
    SettingsSection settingsSection() const { return settingsSection_; }
    Date selectedDate() const { return selectedDate_; }
    const std::optional<UUID>& selectedEventID() const { return selectedEventID_; }
    const std::optional<EventPopoverAnchor>& selectedEventAnchor() const { return selectedEventAnchor_; }
    const std::optional<EditorPresentation>& editorPresentation() const { return editorPresentation_; }
    const std::optional<EventDraft>& pendingEventDraft() const { return pendingEventDraft_; }
    const std::function<void()>& revealMainWindow() const { return revealMainWindow_; }

    void setSettingsSection(SettingsSection section);
    void setSelectedDate(Date date);
    void setEditorPresentation(std::optional<EditorPresentation> presentation);
    void setPendingEventDraft(std::optional<EventDraft> draft);
    void setRevealMainWindow(std::function<void()> action) { revealMainWindow_ = std::move(action); }

    // Changes the screen; a calendar screen also becomes the one to return
    // to. Any open detail closes.
    void selectNavigation(NavigationItem item);
    // Opens the detail of the event the anchor names, resolved to the event
    // the user may act on (a busy block opens the event it mirrors). The
    // anchor is kept even when nothing resolves.
    void selectEvent(const EventPopoverAnchor& anchor, const std::vector<CalendarEvent>& events);
    void closeEventDetail();
    bool isEventDetailPresented(const EventPopoverAnchor& anchor) const;
    // Pages the calendar by months on the month screen, by weeks elsewhere.
    void moveSelectedDate(int by, const DateCalendar& calendar);

    // For QML.
    QString navigationName() const { return QString::fromLatin1(toString(navigation_).data()); }
    QString calendarNavigationName() const { return QString::fromLatin1(toString(calendarNavigation_).data()); }
    QString settingsSectionName() const { return QString::fromLatin1(toString(settingsSection_).data()); }
    double selectedDateSeconds() const { return selectedDate_.unixSeconds(); }
    QString selectedEventIDText() const { return selectedEventID_ ? selectedEventID_->toString() : QString(); }

signals:
    void navigationChanged();
    void calendarNavigationChanged();
    void settingsSectionChanged();
    void selectedDateChanged();
    void selectedEventIDChanged();
    void selectedEventAnchorChanged();
    void editorPresentationChanged();
    void pendingEventDraftChanged();

private:
    void setNavigation(NavigationItem item);
    void setCalendarNavigation(NavigationItem item);
    void setSelectedEventID(std::optional<UUID> id);
    void setSelectedEventAnchor(std::optional<EventPopoverAnchor> anchor);

    NavigationItem navigation_ = NavigationItem::week;
    NavigationItem calendarNavigation_ = NavigationItem::week;
    SettingsSection settingsSection_ = SettingsSection::accounts;
    std::function<void()> revealMainWindow_;
    Date selectedDate_;
    std::optional<UUID> selectedEventID_;
    std::optional<EventPopoverAnchor> selectedEventAnchor_;
    std::optional<EditorPresentation> editorPresentation_;
    std::optional<EventDraft> pendingEventDraft_;
};

} // namespace tavelo
