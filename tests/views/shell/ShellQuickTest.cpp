// The shell's QML driven as a person would: keys and clicks on the real
// editor dialog over a SQLite-backed store, and on the login view against a
// real server on 127.0.0.1.

#include "ai/CloudTestSupport.h"
#include "app/GoogleRefreshSchedule.h"
#include "app/TaveloApp.h"
#include "services/GoogleCalendarServiceError.h"
#include "views/shell/ShellEngine.h"
#include "views/shell/ShellRoot.h"
#include "views/shell/TrayMenu.h"
#include "views/shell/ShellWorkspace.h"
#include "views/shell/GoogleAccountsDouble.h"
#include "stores/StoreTestSupport.h"

#include <QAccessible>
#include <QAction>
#include <QInputMethodEvent>
#include <QMenu>
#include <QSignalSpy>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTest>

#include <gtest/gtest.h>

#include <memory>

using namespace tavelo;
using namespace tavelo::test;
using namespace tavelo::testing;

namespace {

// The first item under `under`, in the visual tree where delegates of
// repeaters stand, that `match` accepts.
QQuickItem* findItem(QQuickItem* under, const std::function<bool(QQuickItem*)>& match) {
    if (!under) return nullptr;
    if (match(under)) return under;
    for (QQuickItem* child : under->childItems())
        if (QQuickItem* found = findItem(child, match)) return found;
    return nullptr;
}
QQuickItem* findItem(QQuickItem* under, const char* name) {
    return findItem(under, [&](QQuickItem* item) { return item->objectName() == QLatin1String(name); });
}
void setObject(QObject* target, const char* property, QObject* value) {
    target->setProperty(property, QVariant::fromValue(value));
}

// A shown window: one component of the shell in an application window, or
// the main window over a shell root.
struct Harness {
    QQmlEngine engine;
    std::unique_ptr<QObject> root;
    QQuickWindow* window = nullptr;

    explicit Harness(const QByteArray& body) {
        shell::addModuleImportPaths(engine);
        QQmlComponent component(&engine);
        component.setData("import QtQuick\nimport QtQuick.Controls\nimport Tavelo.Shell\n"
                          "ApplicationWindow { width: 1000; height: 760; visible: true\n" + body + "\n}",
                          QUrl::fromLocalFile(QStringLiteral("/harness/Harness.qml")));
        show(component, {});
    }
    explicit Harness(shell::ShellRoot& shellRoot) {
        shell::addModuleImportPaths(engine);
        QQmlComponent component(&engine, shell::mainWindowUrl());
        show(component, {{QStringLiteral("root"), QVariant::fromValue(&shellRoot)}});
    }
    void show(QQmlComponent& component, const QVariantMap& properties) {
        root.reset(component.createWithInitialProperties(properties));
        window = qobject_cast<QQuickWindow*>(root.get());
        if (!window) {
            ADD_FAILURE() << component.errorString().toStdString();
            return;
        }
        window->requestActivate();
        EXPECT_TRUE(QTest::qWaitForWindowExposed(window));
    }

    QObject* alias(const char* name) const { return root->property(name).value<QObject*>(); }
    template <class T = QQuickItem>
    T* find(const char* name) const {
        return root ? root->findChild<T*>(QString::fromLatin1(name)) : nullptr;
    }
    QQuickItem* item(const char* name) const { return window ? findItem(window->contentItem(), name) : nullptr; }
    void click(QQuickItem* item) const {
        const QPointF centre = item->mapToScene(QPointF(item->width() / 2, item->height() / 2));
        QTest::mouseClick(window, Qt::LeftButton, {}, centre.toPoint());
    }
    void type(QQuickItem* field, const QString& text) const {
        // Text arrives as an input method commits it, as Japanese does.
        click(field);
        field->forceActiveFocus();
        QInputMethodEvent event;
        event.setCommitString(text);
        QCoreApplication::sendEvent(window->focusObject(), &event);
    }
};

// The event editor dialog over the workspace, opened on `draft`.
struct EditorWindow : Harness {
    QObject* dialog = nullptr;

    EditorWindow(ShellWorkspace& w, const EventDraft& draft)
        : Harness("property alias dialog: editorDialog\nproperty alias model: editorModel\n"
                  "EventEditorModel { id: editorModel }\nEventEditorDialog { id: editorDialog; editor: editorModel }") {
        if (!window) return;
        dialog = alias("dialog");
        setObject(alias("model"), "store", w.store.get());
        setObject(alias("model"), "scene", w.scene.get());
        w.scene->setPendingEventDraft(draft);
        w.scene->setEditorPresentation(EditorPresentation::create());
        EXPECT_TRUE(waitUntil([&] { return dialog->property("opened").toBool(); }));
    }
};

// The accounts page of the settings, following `store`.
struct AccountsPage : Harness {
    explicit AccountsPage(AppStore* store)
        : Harness("property alias page: accounts\nSettingsModel { id: settingsModel }\n"
                  "AccountsSettings { id: accounts; anchors.fill: parent; settings: settingsModel }") {
        if (window) setObject(alias("page"), "store", store);
    }
};

class ShellQuickTest : public CloudStoreTest {};

} // namespace

TEST_F(ShellQuickTest, TheEditorRefusesAnInvalidDraftWithTheStoresMessage) {
    ShellWorkspace w;
    w.open();
    // A dragged interval on the Google calendar, not named yet.
    const EventDraft draft{.start = ShellWorkspace::march(6, 10), .end = ShellWorkspace::march(6, 11),
                           .calendarIDs = {w.work}};
    EditorWindow h(w, draft);
    ASSERT_TRUE(h.dialog);
    auto* message = h.find("validationMessage");
    auto* save = h.find("saveButton");
    ASSERT_TRUE(message && save);
    EXPECT_EQ(message->property("text").toString(), *w.store->eventValidationMessage(draft));
    EXPECT_TRUE(message->isVisible());
    EXPECT_FALSE(save->isEnabled());

    // Enter does not save while the store would refuse the draft.
    const std::size_t before = w.store->events().size();
    QTest::keyClick(h.window, Qt::Key_Return);
    QTest::qWait(100);
    EXPECT_TRUE(h.dialog->property("visible").toBool());
    EXPECT_EQ(w.store->events().size(), before);

    // Named, it saves with Enter; the event is in the file.
    h.type(h.find("titleField"), QStringLiteral("週次レビュー"));
    ASSERT_TRUE(waitUntil([&] { return save->isEnabled(); }));
    EXPECT_FALSE(message->isVisible());
    h.find("titleField")->forceActiveFocus();
    QTest::keyClick(h.window, Qt::Key_Return);
    ASSERT_TRUE(waitUntil([&] { return !h.dialog->property("visible").toBool(); }));
    ASSERT_TRUE(waitUntil([&] { return !w.store->isPersistenceTransactionActive(); }));
    const auto stored = w.stored().events;
    EXPECT_EQ(std::count_if(stored.begin(), stored.end(), [](const CalendarEvent& e) { return e.title == "週次レビュー"; }), 1);
}

TEST_F(ShellQuickTest, QuittingFromTheTrayWaitsForTheSaveUnderWayOnce) {
    auto cloud = makeStore();
    auto action = [](const shell::TrayMenu& tray, const char* name) {
        for (QAction* a : tray.menu().actions())
            if (a->objectName() == QLatin1String(name)) return a;
        return static_cast<QAction*>(nullptr);
    };

    ShellWorkspace w;
    w.open();
    shell::ShellRoot root(*cloud, w.store.get(), w.scene.get());
    shell::TrayMenu tray(root);

    // A save under way: quitting waits for it, and a second request starts
    // nothing new.
    ASSERT_TRUE(syncWait(w.store->acquirePersistenceTransaction(false)));
    QSignalSpy approved(&root, &shell::ShellRoot::quitApproved);
    action(tray, "quit")->trigger();
    action(tray, "quit")->trigger();
    QTest::qWait(50);
    EXPECT_EQ(approved.count(), 0);
    w.store->releasePersistenceTransaction();
    ASSERT_TRUE(waitUntil([&] { return approved.count() > 0; }));
    QTest::qWait(50);
    EXPECT_EQ(approved.count(), 1);
}

namespace {

// The accounts page over a workspace with Google configured.
class AccountsPageTest : public ShellQuickTest {
protected:
    std::shared_ptr<GoogleAccountsDouble> google = std::make_shared<GoogleAccountsDouble>();
    ShellWorkspace w;
    std::unique_ptr<AccountsPage> page;
    QQuickItem* connectButton = nullptr;

    void openPage() {
        w.open(ShellWorkspace::march(4, 12), google);
        page = std::make_unique<AccountsPage>(w.store.get());
        connectButton = page->find("connectGoogleButton");
        ASSERT_TRUE(connectButton);
        ASSERT_TRUE(waitUntil([&] { return connectButton->isVisible(); }));
    }
};

} // namespace

TEST_F(AccountsPageTest, ConnectsAndDisconnectsGoogleAccountsThroughTheStore) {
    openPage();
    auto& h = *page;

    // Connect opens the browser sign-in through the store.
    h.click(connectButton);
    ASSERT_TRUE(waitUntil([&] { return google->connects == 1 && !w.store->isSyncing(); }));

    // Disconnect asks first: Escape leaves the account alone, confirming
    // disconnects exactly that account.
    auto* disconnectButton = findItem(h.item("googleAccount:me@work.example"), "disconnectButton");
    auto* dialog = h.find<QObject>("disconnectDialog");
    ASSERT_TRUE(disconnectButton && dialog);
    h.click(disconnectButton);
    ASSERT_TRUE(waitUntil([&] { return dialog->property("opened").toBool(); }));
    QTest::keyClick(h.window, Qt::Key_Escape);
    ASSERT_TRUE(waitUntil([&] { return !dialog->property("visible").toBool(); }));
    QTest::qWait(50);
    EXPECT_TRUE(google->disconnected.empty());

    h.click(disconnectButton);
    ASSERT_TRUE(waitUntil([&] { return dialog->property("opened").toBool(); }));
    QTest::keyClick(h.window, Qt::Key_Return);
    ASSERT_TRUE(waitUntil([&] { return !google->disconnected.empty() && !w.store->isSyncing(); }));
    EXPECT_EQ(google->disconnected, std::vector<UUID>{w.workAccount});
}

TEST_F(AccountsPageTest, ASignInLeftOpenInTheBrowserCanBeCancelledFromThePage) {
    google->holdsSignIn = true;
    openPage();
    auto* cancelButton = page->find("cancelAuthenticationButton");
    ASSERT_TRUE(cancelButton);

    page->click(connectButton);
    ASSERT_TRUE(waitUntil([&] { return cancelButton->isVisible() && google->heldSignIns.size() == 1; }));
    EXPECT_FALSE(connectButton->isEnabled());

    // Cancelling frees the page at once and offers to try again.
    page->click(cancelButton);
    ASSERT_TRUE(waitUntil([&] { return !w.store->isSyncing() && !cancelButton->isVisible(); }));
    EXPECT_TRUE(connectButton->isEnabled());
}

TEST_F(AccountsPageTest, GoogleIsRefreshedWhenTheApplicationBecomesActive) {
    w.open(ShellWorkspace::march(4, 12), google);
    Date now = ShellWorkspace::march(4, 12);
    GoogleRefreshSchedule schedule([&] { return now; });
    auto* gui = qobject_cast<QGuiApplication*>(QCoreApplication::instance());
    ASSERT_TRUE(gui);

    // Without a workspace there is nobody to ask.
    emit gui->applicationStateChanged(Qt::ApplicationActive);
    EXPECT_EQ(schedule.checkCount(), 0);

    schedule.setStore(w.store.get());
    ASSERT_TRUE(waitUntil([&] { return google->syncedAll == 1 && !w.store->isSyncing(); }));

    // Becoming active asks again; going to the background asks nothing.
    emit gui->applicationStateChanged(Qt::ApplicationInactive);
    EXPECT_EQ(schedule.checkCount(), 1);
    emit gui->applicationStateChanged(Qt::ApplicationActive);
    EXPECT_EQ(schedule.checkCount(), 2);
}

// The name a screen reader gives the item with the keyboard focus.
static QString focusName(QQuickWindow* window) {
    QQuickItem* item = window->activeFocusItem();
    if (!item) return QStringLiteral("<none>");
    QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(item);
    const QString name = accessible ? accessible->text(QAccessible::Name) : QString();
    return name.isEmpty() ? QStringLiteral("<unnamed %1>").arg(QString::fromLatin1(item->metaObject()->className())) : name;
}

// The names of the stops Tab reaches from `first`, until it comes back.
static QStringList tabWalk(QQuickWindow* window, QQuickItem* first, int limit = 40) {
    first->forceActiveFocus(Qt::TabFocusReason);
    QStringList order{focusName(window)};
    for (int step = 0; step < limit; ++step) {
        QTest::keyClick(window, Qt::Key_Tab);
        const QString name = focusName(window);
        if (name == order.front()) break;
        order.push_back(name);
    }
    return order;
}

TEST_F(ShellQuickTest, TabWalksTheEditorInReadingOrderAndStaysInTheDialog) {
    ShellWorkspace w;
    w.open();
    EditorWindow h(w, EventDraft{.title = QStringLiteral("設計レビュー"), .start = ShellWorkspace::march(6, 10),
                                 .end = ShellWorkspace::march(6, 11), .calendarIDs = {w.work}});
    ASSERT_TRUE(h.dialog);
    ASSERT_TRUE(waitUntil([&] { return focusName(h.window) == "タイトル"; }));

    // The fields come in the order they stand, the notes do not swallow Tab,
    // and the walk ends on the buttons and comes back to the title without
    // leaving the dialog.
    const QStringList order = tabWalk(h.window, h.window->activeFocusItem());
    // Every stop has a name a screen reader can say.
    for (const QString& name : order) EXPECT_FALSE(name.startsWith("<")) << order.join(" → ").toStdString();
    EXPECT_EQ(order.mid(0, 6), (QStringList{"タイトル", "終日", "開始日", "開始時刻", "終了日", "終了時刻"}));
    EXPECT_EQ(order.mid(order.size() - 2), (QStringList{"キャンセル", "保存"})) << order.join(" → ").toStdString();
    EXPECT_EQ(focusName(h.window), "タイトル");
}

namespace {

// Creating fails half-way once, as the Google calendar service reports an
// edit that reached the first calendar and not the second: the local file
// gets the copies that arrived.
class HalfWayService final : public ForwardingCalendarService {
public:
    using ForwardingCalendarService::ForwardingCalendarService;
    std::optional<GoogleMutationDestination> missing;
    UUID account;
    QCoro::Task<Events> createEvents(Events events) override {
        auto inner = in;
        if (events.size() < 2 || missing) co_return co_await inner->createEvents(std::move(events));
        const CalendarEvent last = events.back();
        missing = GoogleMutationDestination{account, last.calendarID, last.id};
        events.pop_back();
        co_await inner->createEvents(std::move(events));
        throw GoogleCalendarServiceError::partialOperation(GoogleMutationOperation::create, {*missing}, {},
                                                           GoogleMutationFailureCause::requestFailure);
    }
};

} // namespace

TEST_F(ShellQuickTest, APartialGoogleEditShowsInTheMessageBarAndItsRetrySendsOnlyTheRest) {
    ShellWorkspace w;
    const UUID hiring = uuid(0xC3);
    w.seed.calendars.push_back(CalendarSource{.id = hiring, .accountID = w.workAccount, .name = "採用",
                                              .googleCalendarID = QStringLiteral("hiring@group.calendar.google.com")});
    auto google = std::make_shared<GoogleAccountsDouble>();
    std::vector<GoogleMutationDestination> retried;
    google->onRetry = [&](std::vector<GoogleMutationDestination> rest) { retried = std::move(rest); };
    auto local = std::make_shared<LocalCalendarService>(w.path(), [&] { return w.seed; });
    auto halfWay = std::make_shared<HalfWayService>(local);
    halfWay->account = w.workAccount;
    w.store = std::make_unique<AppStore>(halfWay, google, w.dir.filePath("google-oauth.json"), tokyo());
    syncWait(w.store->load());

    Harness h("property alias shell: controller\nShellController { id: controller }\n"
              "MessageBar { objectName: \"bar\"; width: 600; text: controller.storeMessage; canRetry: controller.canRetry;"
              " onRetry: controller.retry(); onDismissed: controller.dismissStoreMessage() }");
    ASSERT_TRUE(h.window);
    setObject(h.alias("shell"), "store", w.store.get());

    EventDraft draft{.title = QStringLiteral("合同会議"), .start = ShellWorkspace::march(5, 10),
                     .end = ShellWorkspace::march(5, 11), .calendarIDs = {w.work, hiring}};
    EXPECT_FALSE(syncWait(w.store->saveEvent(draft, std::nullopt)));
    ASSERT_TRUE(halfWay->missing) << w.store->lastError().value_or(QString()).toStdString();

    auto* bar = h.item("bar");
    ASSERT_TRUE(bar);
    ASSERT_TRUE(waitUntil([&] { return bar->isVisible(); }));
    auto* retry = findItem(bar, [](QQuickItem* item) { return item->property("text").toString() == "再試行"; });
    ASSERT_TRUE(retry && retry->isVisible());

    h.click(retry);
    ASSERT_TRUE(waitUntil([&] { return !retried.empty() && !bar->isVisible(); }));
    EXPECT_EQ(retried, std::vector<GoogleMutationDestination>{*halfWay->missing});
    EXPECT_FALSE(w.store->canRetry());
}

TEST_F(ShellQuickTest, RestoringASavedSessionShowsABusyStateAndNeverTheLoginForm) {
    connectedStore(); // a session saved by an earlier run
    privateServer.hold("GET", "/v1/session");
    TaveloApp app(directory.filePath(QStringLiteral("app")), makeStore());
    shell::ShellRoot root(app);
    root.start();

    Harness h(root);
    ASSERT_TRUE(h.window);
    bool loginShown = false;
    auto watching = [&](const std::function<bool()>& done) {
        return waitUntil([&] {
            loginShown = loginShown || h.item("loginView") != nullptr;
            return done();
        });
    };
    ASSERT_TRUE(watching([&] { return privateServer.heldCount() == 1; }));
    EXPECT_NE(h.item("startingView"), nullptr);

    ASSERT_TRUE(privateServer.answerOldestHeld(CannedResponse::json(200, R"({"userID":"owner","kind":"owner"})")));
    ASSERT_TRUE(watching([&] { return root.hasWorkspace() && !root.isStarting(); }));
    ASSERT_TRUE(watching([&] { return h.item("startingView") == nullptr; }));
    QTest::qWait(50);
    EXPECT_FALSE(loginShown || h.item("loginView"));
}
