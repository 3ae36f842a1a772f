// The settings file's reader against lists written elsewhere.

#include "app/SettingsFile.h"

#include <gtest/gtest.h>

// A binary list whose UTF-16 key and string hold U+0000 (libplist aborts when asked for either):
// {"é\0b": "ok", "k": "é\0w", "n": 7}
TEST(SettingsFile, NulCharactersOfABinaryListAreReplacedNotFatal)
{
    const QByteArray binary =
        QByteArray::fromHex("62706c6973743030d3010203040506516b516e6300e9000000626300e9000000"
                            "771007526f6b080f11131a212300000000000001010000000000000007000000"
                            "00000000000000000000000026");
    ASSERT_EQ(binary.size(), 77);
    QVariantMap values;
    ASSERT_TRUE(SettingsFile::parse(binary, &values));
    EXPECT_EQ(values.value(QStringLiteral("k")).toString(), QStringLiteral("é\uFFFDw"));
    EXPECT_EQ(values.value(QStringLiteral("é\uFFFDb")).toString(), QStringLiteral("ok"));
    EXPECT_EQ(values.value(QStringLiteral("n")).toLongLong(), 7);

    // What was read is written and read back unchanged.
    QVariantMap again;
    ASSERT_TRUE(SettingsFile::parse(SettingsFile::serialize(values), &again));
    EXPECT_EQ(again, values);
}
