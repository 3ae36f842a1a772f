#include "ui/Palette.h"

namespace Palette {

bool isDark(const QPalette &palette)
{
    return palette.color(QPalette::Window).lightnessF() < 0.5;
}

QColor errorText(const QPalette &palette)
{
    // Deep red on light windows, a light red on dark ones: both above 4.5:1 against the window.
    return isDark(palette) ? QColor(0xff, 0x8a, 0x80) : QColor(0xb7, 0x1c, 0x1c);
}

} // namespace Palette
