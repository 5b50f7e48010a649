// Qt Quick tests of the calendar views over a real workspace: the views get
// a SQLite-backed store and a scene, and `workspace` lets the tests read the
// scene's draft and the state file.

// Qt first, for moc.
#include <QObject>
#include <QQmlContext>
#include <QQmlEngine>
#include <QtPlugin>
#include <QtQml/qqmlextensionplugin.h>
#include <QtQuickTest>

#include "CalendarFixture.h"

Q_IMPORT_QML_PLUGIN(Tavelo_CalendarPlugin)

namespace tavelo::test {

class WorkspaceProbe : public QObject {
    Q_OBJECT
    Q_PROPERTY(QObject* store READ store CONSTANT)
    Q_PROPERTY(QObject* scene READ scene CONSTANT)

public:
    WorkspaceProbe() { workspace_.open(); }

    QObject* store() const { return workspace_.store.get(); }
    QObject* scene() const { return workspace_.scene.get(); }

    // Each test starts on Wednesday 4 March with no editor and no detail.
    Q_INVOKABLE void resetScene() {
        SceneState& scene = *workspace_.scene;
        scene.setSelectedDate(CalendarWorkspace::march(4, 12));
        scene.setEditorPresentation(std::nullopt);
        scene.setPendingEventDraft(std::nullopt);
        scene.closeEventDetail();
    }
    Q_INVOKABLE double march(int day, int hour, int minute) const {
        return CalendarWorkspace::march(day, hour, minute).unixSeconds();
    }
    Q_INVOKABLE QString eventId(int n) const { return uuid(n).toString(); }
    Q_INVOKABLE QString editorPresentationId() const {
        const auto& presentation = workspace_.scene->editorPresentation();
        return presentation ? presentation->id() : QString();
    }
    // The pending draft's [start, end], empty without a draft.
    Q_INVOKABLE QVariantList pendingDraft() const {
        const auto& draft = workspace_.scene->pendingEventDraft();
        return draft ? QVariantList{draft->start.unixSeconds(), draft->end.unixSeconds()} : QVariantList{};
    }
    // Event `n`'s [start, end] as the state file holds it, empty when absent.
    Q_INVOKABLE QVariantList storedInterval(int n) const {
        const AppSnapshot snapshot = workspace_.stored();
        const CalendarEvent* event = workspace_.storedEvent(snapshot, n);
        return event ? QVariantList{event->start.unixSeconds(), event->end.unixSeconds()} : QVariantList{};
    }

private:
    CalendarWorkspace workspace_;
};

class Setup : public QObject {
    Q_OBJECT

public slots:
    void qmlEngineAvailable(QQmlEngine* engine) {
        engine->addImportPath(QStringLiteral("qrc:/qt/qml"));
        probe_ = std::make_unique<WorkspaceProbe>();
        engine->rootContext()->setContextProperty(QStringLiteral("workspace"), probe_.get());
    }
    void cleanupTestCase() { probe_.reset(); }

private:
    std::unique_ptr<WorkspaceProbe> probe_;
};

} // namespace tavelo::test

QUICK_TEST_MAIN_WITH_SETUP(calendar_views, tavelo::test::Setup)

#include "QuickTestMain.moc"
