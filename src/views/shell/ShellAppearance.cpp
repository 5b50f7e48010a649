#include "views/shell/ShellAppearance.h"

#include <QFont>
#include <QFontDatabase>
#include <QGuiApplication>
#include <QIcon>
#include <QPainter>
#include <QPalette>
#include <QPixmap>
#include <QQuickStyle>

namespace tavelo::shell {

namespace {

QPalette lightPalette() {
    QPalette p;
    p.setColor(QPalette::Window, QColor(0xf5, 0xf5, 0xf7));
    p.setColor(QPalette::WindowText, QColor(0x1d, 0x1d, 0x1f));
    p.setColor(QPalette::Base, QColor(0xff, 0xff, 0xff));
    p.setColor(QPalette::AlternateBase, QColor(0xf0, 0xf0, 0xf3));
    p.setColor(QPalette::Text, QColor(0x1d, 0x1d, 0x1f));
    p.setColor(QPalette::PlaceholderText, QColor(0x86, 0x86, 0x8b));
    p.setColor(QPalette::Button, QColor(0xfb, 0xfb, 0xfd));
    p.setColor(QPalette::ButtonText, QColor(0x1d, 0x1d, 0x1f));
    p.setColor(QPalette::Highlight, QColor(0x2f, 0x6f, 0xeb));
    p.setColor(QPalette::HighlightedText, Qt::white);
    p.setColor(QPalette::Mid, QColor(0xc7, 0xc7, 0xcc));
    p.setColor(QPalette::Dark, QColor(0xa1, 0xa1, 0xa6));
    p.setColor(QPalette::Light, Qt::white);
    p.setColor(QPalette::ToolTipBase, QColor(0xff, 0xff, 0xf0));
    p.setColor(QPalette::ToolTipText, QColor(0x1d, 0x1d, 0x1f));
    p.setColor(QPalette::Link, QColor(0x2f, 0x6f, 0xeb));
    p.setColor(QPalette::Disabled, QPalette::Text, QColor(0xa1, 0xa1, 0xa6));
    p.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(0xa1, 0xa1, 0xa6));
    p.setColor(QPalette::Disabled, QPalette::WindowText, QColor(0xa1, 0xa1, 0xa6));
    return p;
}

QPalette darkPalette() {
    QPalette p;
    p.setColor(QPalette::Window, QColor(0x23, 0x24, 0x28));
    p.setColor(QPalette::WindowText, QColor(0xec, 0xec, 0xef));
    p.setColor(QPalette::Base, QColor(0x2b, 0x2c, 0x31));
    p.setColor(QPalette::AlternateBase, QColor(0x33, 0x34, 0x3a));
    p.setColor(QPalette::Text, QColor(0xec, 0xec, 0xef));
    p.setColor(QPalette::PlaceholderText, QColor(0x8e, 0x8e, 0x96));
    p.setColor(QPalette::Button, QColor(0x3a, 0x3b, 0x42));
    p.setColor(QPalette::ButtonText, QColor(0xec, 0xec, 0xef));
    p.setColor(QPalette::Highlight, QColor(0x3d, 0x7f, 0xf5));
    p.setColor(QPalette::HighlightedText, Qt::white);
    p.setColor(QPalette::Mid, QColor(0x6a, 0x6b, 0x74)); // check box and field edges must show on Base
    p.setColor(QPalette::Dark, QColor(0x14, 0x14, 0x17));
    p.setColor(QPalette::Light, QColor(0x4a, 0x4b, 0x52));
    p.setColor(QPalette::Shadow, Qt::black);
    p.setColor(QPalette::ToolTipBase, QColor(0x32, 0x33, 0x39));
    p.setColor(QPalette::ToolTipText, QColor(0xec, 0xec, 0xef));
    p.setColor(QPalette::Link, QColor(0x6e, 0xa2, 0xff));
    p.setColor(QPalette::Disabled, QPalette::Text, QColor(0x6e, 0x6e, 0x76));
    p.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(0x6e, 0x6e, 0x76));
    p.setColor(QPalette::Disabled, QPalette::WindowText, QColor(0x6e, 0x6e, 0x76));
    return p;
}

} // namespace

bool systemPrefersDark() {
    const QString forced = qEnvironmentVariable("TAVELO_COLOR_SCHEME").toLower();
    if (forced == QLatin1String("dark")) return true;
    if (forced == QLatin1String("light")) return false;
    if (qEnvironmentVariable("GTK_THEME").toLower().contains(QLatin1String("dark"))) return true;
    return QGuiApplication::palette().color(QPalette::Window).lightness() < 128;
}

void applyAppearance(std::optional<bool> dark) {
    // The style can be chosen once, before the first window.
    static const bool styled = [] {
        QQuickStyle::setStyle(QStringLiteral("Fusion"));
        return true;
    }();
    Q_UNUSED(styled);
    QFont font = QGuiApplication::font();
    const QString family = QStringLiteral("Noto Sans CJK JP");
    if (QFontDatabase::families().contains(family)) font.setFamilies({family});
    font.setPointSizeF(13);
    QGuiApplication::setFont(font);
    QGuiApplication::setPalette(dark.value_or(systemPrefersDark()) ? darkPalette() : lightPalette());
}

QIcon applicationIcon() {
    QIcon icon;
    for (int size : {16, 22, 32, 64}) {
        QPixmap pixmap(size, size);
        pixmap.fill(Qt::transparent);
        QPainter painter(&pixmap);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setBrush(QColor(0x2f, 0x6f, 0xeb));
        painter.setPen(Qt::NoPen);
        painter.drawRoundedRect(QRectF(0, 0, size, size), size * 0.22, size * 0.22);
        painter.setPen(Qt::white);
        QFont font;
        font.setBold(true);
        font.setPixelSize(static_cast<int>(size * 0.7));
        painter.setFont(font);
        painter.drawText(QRectF(0, 0, size, size), Qt::AlignCenter, QStringLiteral("T"));
        painter.end();
        icon.addPixmap(pixmap);
    }
    return icon;
}

} // namespace tavelo::shell
