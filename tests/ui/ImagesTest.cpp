#include <QIcon>
#include <QPixmap>
#include <QStringList>
#include <gtest/gtest.h>

// Every image the shell looks up by name is compiled in, at 1x and 2x, with a transparent
// background (the tray icons sit on panels of any colour).
TEST(Images, TrayFramesIdleIconAndButtonsAreCompiledInAtBothScales)
{
    QStringList names = {QStringLiteral("statusBarIcon"), QStringLiteral("btn_on"),
                         QStringLiteral("btn_on_press"), QStringLiteral("btn_off"),
                         QStringLiteral("btn_off_press")};
    for (int frame = 1; frame <= 10; ++frame)
        names << QStringLiteral("sync_16_%1").arg(frame, 2, 10, QLatin1Char('0'));
    for (const QString &name : names) {
        const QPixmap one(QStringLiteral(":/images/%1.png").arg(name));
        const QPixmap two(QStringLiteral(":/images/%1@2x.png").arg(name));
        ASSERT_FALSE(one.isNull()) << qPrintable(name);
        ASSERT_FALSE(two.isNull()) << qPrintable(name);
        EXPECT_EQ(two.size(), one.size() * 2) << qPrintable(name);
        const QImage image = one.toImage();
        EXPECT_TRUE(image.hasAlphaChannel()) << qPrintable(name);
        EXPECT_EQ(image.pixelColor(0, 0).alpha(), 0) << qPrintable(name) << ": corners are transparent";
    }
    // The tray frames are the tray's size.
    EXPECT_EQ(QPixmap(QStringLiteral(":/images/sync_16_01.png")).size(), QSize(16, 16));
    // Consecutive frames differ (the arrows turn); the idle icon differs from every frame.
    const QImage idle = QPixmap(QStringLiteral(":/images/statusBarIcon.png")).toImage();
    QImage previous = QPixmap(QStringLiteral(":/images/sync_16_10.png")).toImage();
    for (int frame = 1; frame <= 10; ++frame) {
        const QImage current =
            QPixmap(QStringLiteral(":/images/sync_16_%1.png").arg(frame, 2, 10, QLatin1Char('0'))).toImage();
        EXPECT_NE(current, previous) << frame;
        EXPECT_NE(current, idle) << frame;
        previous = current;
    }
}
