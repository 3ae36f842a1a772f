#pragma once
// Colours the widgets choose for themselves, legible on the desktop's light and dark themes.

#include <QColor>
#include <QPalette>

namespace Palette {
// True when the window background is dark.
bool isDark(const QPalette &palette);
// A red for failure texts on the window background.
QColor errorText(const QPalette &palette);
} // namespace Palette
