// Renders every screen of the window offscreen, in light and dark, from a
// seeded workspace in a temporary directory, into PNG files:
//   tavelo-screenshots [output directory, default build/screenshots]
// The cloud is a private server on 127.0.0.1 run by this program, so the
// settings show a signed-in account with AI schedules.

#include "ai/AICloudStore.h"
#include "services/GoogleAccountService.h"
#include "services/LocalCalendarService.h"
#include "stores/AppStore.h"
#include "stores/SceneState.h"
#include "support/Async.h"
#include "support/CalendarMath.h"
#include "support/Defaults.h"
#include "support/LocalHttpServer.h"
#include "views/shell/LocalCloudServer.h"
#include "views/shell/ShellAppearance.h"
#include "views/shell/ShellEngine.h"
#include "views/shell/SettingsModel.h"
#include "views/shell/ShellRoot.h"
#include "views/shell/screenshots/SeededWorkspace.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QQmlApplicationEngine>
#include <QQuickItem>
#include <QQuickWindow>
#include <QProcess>
#include <QTemporaryDir>
#include <QtQml/qqmlextensionplugin.h>

#include <cstdio>

Q_IMPORT_QML_PLUGIN(Tavelo_ShellPlugin)
#ifdef TAVELO_HAS_CALENDAR_VIEWS
Q_IMPORT_QML_PLUGIN(Tavelo_CalendarPlugin)
#endif

using namespace tavelo;
using namespace tavelo::shell;
using tavelo::testing::CannedResponse;

namespace {

// Google as the seeded accounts stand: the connected one with a calendar it
// could only partly read, the other waiting to be reconnected. Nothing is
// reached over the network.
class SeededGoogleAccounts final : public GoogleAccountService {
public:
    explicit SeededGoogleAccounts(const AppSnapshot& seed) : seed_(seed) {}

    QCoro::Task<Account> connectGoogleAccount(std::stop_token) override { throw std::runtime_error("offline"); }
    QCoro::Task<Account> reconnectGoogleAccount(UUID, std::stop_token) override { throw std::runtime_error("offline"); }
    QCoro::Task<void> syncGoogleAccount(UUID, std::stop_token) override { co_return; }
    QCoro::Task<void> syncAllGoogleAccounts(std::stop_token) override { co_return; }
    QCoro::Task<void> disconnectGoogleAccount(UUID, std::stop_token) override { co_return; }
    QCoro::Task<GoogleSyncStatus> googleSyncStatus(UUID id) override {
        for (const Account& account : seed_.accounts)
            if (account.id == id && !account.isConnected) co_return GoogleSyncStatus::reconnectRequired;
        co_return GoogleSyncStatus::connected;
    }
    QCoro::Task<std::vector<GoogleSyncWarning>> googleSyncWarnings(UUID id) override {
        std::vector<GoogleSyncWarning> warnings;
        for (const CalendarSource& calendar : seed_.calendars)
            if (calendar.accountID == id && calendar.name.contains(QStringLiteral("採用")))
                warnings.push_back(GoogleSyncWarning::skippedEvents(calendar.id, 2));
        co_return warnings;
    }
    QCoro::Task<std::vector<CalendarEvent>> retryMutation(GoogleMutationOperation, UUID, std::vector<CalendarEvent>,
                                                          std::vector<GoogleMutationDestination>) override {
        throw std::runtime_error("offline");
    }

private:
    AppSnapshot seed_;
};

class EmptySecretStore final : public SecretStore {
public:
    QCoro::Task<SecretReadResult> read(QString service, QString account) override {
        auto it = items_.find(service + QLatin1Char('/') + account);
        if (it == items_.end()) co_return SecretReadResult{SecretStatus::itemNotFound, {}};
        co_return SecretReadResult{SecretStatus::success, it->second};
    }
    QCoro::Task<std::int32_t> save(QString service, QString account, QByteArray data) override {
        items_[service + QLatin1Char('/') + account] = data;
        co_return SecretStatus::success;
    }
    QCoro::Task<std::int32_t> remove(QString service, QString account) override {
        items_.erase(service + QLatin1Char('/') + account);
        co_return SecretStatus::success;
    }

private:
    std::map<QString, QByteArray> items_;
};

void settle(int milliseconds) {
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < milliseconds) QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
}

struct Shooter {
    QString directory;
    QString theme;
    int written = 0;

    void shoot(QQuickWindow* window, const QString& name) {
        // The first frame of a window waits for its views to lay out.
        settle(written == 0 ? 1500 : 400);
        const QImage image = window->grabWindow();
        const QString path = QDir(directory).filePath(QStringLiteral("%1-%2.png").arg(name, theme));
        if (image.isNull() || !image.save(path)) {
            std::fprintf(stderr, "could not write %s\n", qPrintable(path));
            return;
        }
        ++written;
        std::printf("%s\n", qPrintable(path));
    }
};

QQuickWindow* load(QQmlApplicationEngine& engine, ShellRoot& root) {
    addModuleImportPaths(engine);
    engine.setInitialProperties({{QStringLiteral("root"), QVariant::fromValue(&root)}});
    engine.load(mainWindowUrl());
    if (engine.rootObjects().isEmpty()) return nullptr;
    auto* window = qobject_cast<QQuickWindow*>(engine.rootObjects().constFirst());
    if (window) {
        window->resize(1280, 820);
        window->show();
    }
    return window;
}

// The first text field below `item` whose placeholder or name suggests a query.
QQuickItem* findTextField(QQuickItem* item) {
    if (!item) return nullptr;
    if (QByteArray(item->metaObject()->className()).contains("TextField") && item->isVisible()) return item;
    for (QQuickItem* child : item->childItems())
        if (QQuickItem* found = findTextField(child)) return found;
    return nullptr;
}

} // namespace

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    const QString output = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("build/screenshots");
    // One theme per process: Qt Quick Controls take the palette of the first
    // window for good. The light run starts the dark one.
    const bool darkRun = argc > 2 && QByteArray(argv[2]) == "--dark";
    QDir().mkpath(output);

    QTemporaryDir temporary;
    const DateCalendar calendar(QStringLiteral("Asia/Tokyo"), QStringLiteral("ja_JP"));
    const Date today = Date::now();

    // A private server with two AI schedules and a linked ChatGPT account.
    tavelo::testing::LocalHttpServer server;
    server.route("GET", "/v1/session", CannedResponse::json(200, R"({"userID":"owner","kind":"owner"})"));
    server.route("GET", "/v1/account",
                 CannedResponse::json(200, R"({"connected":true,"email":"sato.hanako@gmail.example","plan":"Plus"})"));
    const qint64 firstRun = static_cast<qint64>(today.unixSeconds()) - 3 * 86400;
    server.route("GET", "/v1/state", CannedResponse::json(200, QStringLiteral(R"({"schedules":[
        {"id":"6F1C2A9E-4B1D-4F0A-9C53-2E7D8B1A0C11","title":"朝のニュース要約","prompt":"業界ニュースを要約して",
         "firstRun":%1,"timeZoneID":"Asia/Tokyo","recurrence":"daily","isPaused":false},
        {"id":"7A2D3B0F-5C2E-4A1B-8D64-3F8E9C2B1D22","title":"週次レポートの下書き（全プロジェクトの進捗と課題を一覧にする）",
         "prompt":"今週の予定から週報を書いて","firstRun":%2,"timeZoneID":"Asia/Tokyo","recurrence":"weekly","isPaused":false}],
        "runs":[{"id":"r1","scheduleID":"6F1C2A9E-4B1D-4F0A-9C53-2E7D8B1A0C11","scheduledAt":%3,"status":"complete",
         "output":"要約しました"}]})")
                                                                   .arg(firstRun)
                                                                   .arg(firstRun + 2 * 86400 + 7200)
                                                                   .arg(firstRun + 2 * 86400)
                                                                   .toUtf8()));
    auto defaults = std::make_shared<MemoryDefaults>();
    AICloudStore cloud(AICloudStore::Dependencies{defaults, std::make_shared<EmptySecretStore>(), nullptr,
                                                  temporary.filePath(QStringLiteral("cache")), {}, {}, {}});
    try {
        syncWait(cloud.connectPrivateServer(server.baseUrl(), QStringLiteral("owner-key-0123456789abcdefghijklmnop")));
        syncWait(cloud.refreshAccount());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "cloud: %s\n", qPrintable(localizedDescription(error)));
    }
    syncWait(cloud.refresh());

    const QString statePath = temporary.filePath(QStringLiteral("state.json"));
    auto service = std::make_shared<LocalCalendarService>(statePath, [&] { return seededSnapshot(today, calendar); });
    AppStore store(service, std::make_shared<SeededGoogleAccounts>(seededSnapshot(today, calendar)),
                   temporary.filePath(QStringLiteral("google-oauth.json")), calendar);
    syncWait(store.load());

    // The owner file of a server on this computer, for the login view.
    const QString ownerPath = temporary.filePath(QStringLiteral("owner.json"));
    {
        QFile owner(ownerPath);
        if (owner.open(QIODevice::WriteOnly)) {
            owner.write(R"({"endpoint":"http://127.0.0.1:47615","connectionKey":"k"})");
            owner.close();
            owner.setPermissions(QFile::ReadOwner | QFile::WriteOwner);
        }
    }

    int written = 0;
    {
        const bool dark = darkRun;
        applyAppearance(dark);
        Shooter shooter{output, dark ? QStringLiteral("dark") : QStringLiteral("light")};
        {
            // Nobody signed in.
            AICloudStore signedOut(AICloudStore::Dependencies{std::make_shared<MemoryDefaults>(),
                                                              std::make_shared<EmptySecretStore>(), nullptr,
                                                              temporary.filePath(QStringLiteral("cache2")), {}, {}, {}});
            ShellRoot root(signedOut, nullptr, nullptr, new LocalCloudServer(ownerPath));
            QQmlApplicationEngine engine;
            if (QQuickWindow* window = load(engine, root)) shooter.shoot(window, QStringLiteral("01-login"));
        }
        {
            SceneState scene(today);
            ShellRoot root(cloud, &store, &scene);
            QQmlApplicationEngine engine;
            QQuickWindow* window = load(engine, root);
            if (!window) return 1;
            shooter.shoot(window, QStringLiteral("02-week"));

            // The editor, over the week, with a dragged interval.
            const auto days = CalendarMath::daysInWeek(today, calendar);
            const auto c = calendar.components(days.size() > 3 ? days[3] : today);
            EventDraft draft;
            draft.title = QStringLiteral("候補者面接（フロントエンド）");
            draft.start = calendar.date(c.year, c.month, c.day, 14).value_or(today);
            draft.end = draft.start.addingSeconds(5400);
            draft.calendarIDs = {store.calendars().at(1).id, store.calendars().at(2).id};
            draft.notifications = {10};
            scene.setPendingEventDraft(draft);
            scene.setEditorPresentation(EditorPresentation::create());
            shooter.shoot(window, QStringLiteral("03-editor"));
            scene.setEditorPresentation(std::nullopt);
            draft.title.clear();
            draft.end = draft.start.addingSeconds(-3600);
            scene.setPendingEventDraft(draft);
            scene.setEditorPresentation(EditorPresentation::create());
            shooter.shoot(window, QStringLiteral("04-editor-invalid"));
            scene.setEditorPresentation(std::nullopt);
            scene.setPendingEventDraft(std::nullopt);

            scene.selectNavigation(NavigationItem::month);
            shooter.shoot(window, QStringLiteral("05-month"));
            scene.selectNavigation(NavigationItem::search);
            settle(200);
            if (QQuickItem* field = findTextField(window->contentItem())) {
                field->setProperty("text", QStringLiteral("実装"));
                QMetaObject::invokeMethod(field, "textEdited");
            }
            shooter.shoot(window, QStringLiteral("06-search"));
            scene.selectNavigation(NavigationItem::report);
            shooter.shoot(window, QStringLiteral("07-report"));
            scene.selectNavigation(NavigationItem::meetings);
            shooter.shoot(window, QStringLiteral("08-meetings"));
            scene.setSettingsSection(SettingsSection::accounts);
            scene.selectNavigation(NavigationItem::settings);
            shooter.shoot(window, QStringLiteral("09-settings-accounts"));
            scene.setSettingsSection(SettingsSection::tags);
            shooter.shoot(window, QStringLiteral("10-settings-tags"));
            scene.setSettingsSection(SettingsSection::aiCloud);
            shooter.shoot(window, QStringLiteral("11-settings-ai"));
            if (auto* settings = window->findChild<SettingsModel*>()) {
                settings->newSchedule();
                settings->setScheduleTitle(QStringLiteral("月次の振り返りメモ"));
                settings->setSchedulePrompt(QStringLiteral("先月のカレンダーから、時間の使い方を3行でまとめてください。"));
                settings->setScheduleRecurrence(QStringLiteral("monthly"));
                shooter.shoot(window, QStringLiteral("13-settings-ai-editor"));
                settings->cancelScheduleEdit();
            }
            store.recordMessage(QStringLiteral("カレンダーを保存できませんでした。ディスクの空き容量を確認してください。"));
            scene.selectNavigation(NavigationItem::week);
            shooter.shoot(window, QStringLiteral("12-week-message"));
            store.clearPersistenceMessage();
        }
        written += shooter.written;
    }
    std::printf("%d screenshots\n", written);
    std::fflush(stdout);
    if (!darkRun && written > 0)
        return QProcess::execute(QCoreApplication::applicationFilePath(), {output, QStringLiteral("--dark")});
    return written > 0 ? 0 : 1;
}
