#pragma once

#include <QObject>

#include <memory>

class QMenu;
class QSystemTrayIcon;

namespace tavelo::shell {

class ShellRoot;

// The icon in the panel's status area with its menu: open the meeting notes,
// open the calendar, quit. Without a workspace the entries are disabled and
// only quitting stays.
class TrayMenu : public QObject {
    Q_OBJECT
public:
    explicit TrayMenu(ShellRoot& root, QObject* parent = nullptr);
    ~TrayMenu() override;

    // The menu as built, for tests and for desktops without a status area.
    QMenu& menu() const { return *menu_; }
    void show();

private:
    void update();

    ShellRoot& root_;
    std::unique_ptr<QMenu> menu_;
    QSystemTrayIcon* icon_;
};

} // namespace tavelo::shell
