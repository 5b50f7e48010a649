// Tavelo's entry point. The windows arrive with the screens; until then the
// program starts the application root as it will run for real (restores the
// cloud session, builds the workspace of the signed-in account, loads its
// calendar) and reports what it found.

#include "ai/AICloudStore.h"
#include "app/TaveloApp.h"
#include "services/LocalCalendarService.h"
#include "stores/AppStore.h"
#include "support/Async.h"

#include <QApplication>
#include <QDir>
#include <QTextStream>

#include <cstdio>

using namespace tavelo;

namespace {

QTextStream& out() {
    static QTextStream stream(stdout);
    return stream;
}

void describe(const QString& label, const AppStore& store) {
    out() << label << "\n"
          << "  アカウント: " << store.accounts().size() << "  カレンダー: " << store.calendars().size()
          << "  予定: " << store.events().size() << "  タグ: " << store.tags().size() << "\n";
    if (const auto& message = store.lastError()) out() << "  お知らせ: " << *message << "\n";
    out().flush();
}

} // namespace

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Tavelo"));
    QApplication::setOrganizationDomain(QStringLiteral("tavelo.app"));
    QApplication::setQuitOnLastWindowClosed(false);

    const QString root = TaveloApp::standardRootDirectory();
    AICloudStore::Dependencies dependencies;
    dependencies.cacheDirectory = root;
    TaveloApp app(root, std::make_unique<AICloudStore>(std::move(dependencies)));

    out() << "Tavelo " << TAVELO_VERSION << "\n"
          << "データの保存先: " << QDir::toNativeSeparators(root) << "\n";
    out().flush();

    syncWait(app.start());
    if (auto workspace = app.currentWorkspace()) {
        syncWait(workspace->store().load());
        describe(QStringLiteral("ワークスペース %1 を読み込みました。").arg(workspace->id()), workspace->store());
        return 0;
    }

    out() << "AI Cloudにログインしていません。ログイン画面は今後の版で追加されます。\n";
    // Calendars of earlier sign-ins stay on disk under their workspace id.
    const QDir users(QDir(root).filePath(QStringLiteral("users")));
    for (const QString& id : users.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name)) {
        const QString statePath = QDir(users.filePath(id)).filePath(QStringLiteral("state.json"));
        if (!QFile::exists(statePath)) continue;
        AppStore store(std::make_shared<LocalCalendarService>(statePath), nullptr,
                       QDir(users.filePath(id)).filePath(QStringLiteral("google-oauth.json")));
        syncWait(store.load());
        describe(QStringLiteral("保存済みのワークスペース %1:").arg(id), store);
    }
    return 0;
}
