#pragma once

#include <optional>

class QIcon;

namespace tavelo::shell {

// The interface font (Noto Sans CJK JP at 13 points, else the system font),
// the Fusion style and a light or dark palette. Without `dark` the system's
// choice is followed: the platform palette, GTK_THEME, or
// TAVELO_COLOR_SCHEME=dark|light.
void applyAppearance(std::optional<bool> dark = std::nullopt);
bool systemPrefersDark();

// The application's icon, drawn (no image files to install).
QIcon applicationIcon();

} // namespace tavelo::shell
