#include "views/shell/TrayMenu.h"

#include "views/shell/ShellAppearance.h"
#include "views/shell/ShellRoot.h"

#include <QAction>
#include <QMenu>
#include <QSystemTrayIcon>

namespace tavelo::shell {

TrayMenu::TrayMenu(ShellRoot& root, QObject* parent)
    : QObject(parent), root_(root), menu_(std::make_unique<QMenu>()), icon_(new QSystemTrayIcon(this)) {
    QAction* meetings = menu_->addAction(QStringLiteral("会議ノートを開く"));
    meetings->setObjectName(QStringLiteral("openMeetings"));
    connect(meetings, &QAction::triggered, &root_, &ShellRoot::openMeetings);
    QAction* calendar = menu_->addAction(QStringLiteral("カレンダーを開く"));
    calendar->setObjectName(QStringLiteral("openCalendar"));
    connect(calendar, &QAction::triggered, &root_, &ShellRoot::openCalendar);
    menu_->addSeparator();
    QAction* quit = menu_->addAction(QStringLiteral("Taveloを終了"));
    quit->setObjectName(QStringLiteral("quit"));
    connect(quit, &QAction::triggered, &root_, &ShellRoot::requestQuit);

    icon_->setIcon(applicationIcon());
    icon_->setToolTip(QStringLiteral("Tavelo"));
    icon_->setContextMenu(menu_.get());
    connect(icon_, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger) root_.openCalendar();
    });
    connect(&root_, &ShellRoot::workspaceChanged, this, &TrayMenu::update);
    update();
}

TrayMenu::~TrayMenu() = default;

void TrayMenu::show() {
    if (QSystemTrayIcon::isSystemTrayAvailable()) icon_->show();
}

void TrayMenu::update() {
    const bool enabled = root_.hasWorkspace();
    for (QAction* action : menu_->actions())
        if (action->objectName() != QLatin1String("quit")) action->setEnabled(enabled);
}

} // namespace tavelo::shell
