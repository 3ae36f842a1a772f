// The string table: English beneath the locale's language, whole-table swaps while others read.

#include "app/LanguageUtil.h"

#include "common/TestUtil.h"
#include "util/Log.h"

#include <QDeadlineTimer>
#include <QStringList>
#include <QTemporaryDir>
#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

// Every key the program looks up somewhere.
const QStringList kKeysInUse =
    QStringLiteral(
        "domain id password save_info login logout domain_error user_error password_error login_error "
        "check_internet account quota please_login used_total TOTAL USED pc_name folder_location execute "
        "synchronization on off in_sync stop_sync automatic_run save reset search add shortcut "
        "desktop_shortcut log start_menu_item stop_menu_item open_sync_folder_menu_item check_update quit "
        "upload_complete download_complete create_complete deleted file folder from_server from_sync "
        "work_add work_rename work_delete work_move have_new_version new_version update cancel "
        "file_not_found download_error close_install")
        .split(u' ');

LanguageUtil::Table fileTable(const QString &code)
{
    LanguageUtil::Table table;
    EXPECT_TRUE(LanguageUtil::readLanguageFile(LanguageUtil::resourcePathForLanguage(code), &table))
        << code.toStdString();
    return table;
}

QStringList &capturedLines()
{
    static QStringList lines;
    return lines;
}

// Leaves the shared table in English for the next test.
class LanguageUtilTest : public ::testing::Test
{
protected:
    void TearDown() override
    {
        QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
        LanguageUtil::readLanguage();
    }
};

} // namespace

TEST_F(LanguageUtilTest, FilesHoldEveryKeyAndGermanTranslatesThemAll)
{
    const auto english = fileTable(u"en"_s);
    const auto german = fileTable(u"de"_s);
    for (const QString &key : kKeysInUse) {
        EXPECT_TRUE(english.contains(key)) << "en.xml lacks " << key.toStdString();
        EXPECT_FALSE(english.value(key).isEmpty()) << key.toStdString();
    }
    EXPECT_EQ(QSet<QString>(german.keyBegin(), german.keyEnd()),
              QSet<QString>(english.keyBegin(), english.keyEnd()));
    // The quota reply's attribute names pass through the table and must come out unchanged.
    for (const auto *table : {&english, &german}) {
        EXPECT_EQ(table->value(u"TOTAL"_s), u"TOTAL"_s);
        EXPECT_EQ(table->value(u"USED"_s), u"USED"_s);
    }
    EXPECT_NE(german.value(u"logout"_s), english.value(u"logout"_s));
}

TEST_F(LanguageUtilTest, LocaleLanguageOverEnglishAndMissingKeysReturnThemselves)
{
    const auto english = fileTable(u"en"_s);
    LanguageUtil *util = LanguageUtil::instance();

    util->readLanguage(QLocale(QLocale::German, QLocale::Germany));
    EXPECT_EQ(LanguageUtil::getStringByKey(u"logout"_s), fileTable(u"de"_s).value(u"logout"_s));
    EXPECT_EQ(LanguageUtil::getStringByKey(u"USED"_s), u"USED"_s);

    // A language without a file leaves exactly the English table.
    util->readLanguage(QLocale(QLocale::Japanese, QLocale::Japan));
    EXPECT_EQ(*util->langs(), english);

    // English read twice (as the base and as the locale's language) equals one read.
    util->readLanguage(QLocale(QLocale::English, QLocale::UnitedKingdom));
    EXPECT_EQ(*util->langs(), english);

    // The parameter-free read follows the default locale and brackets its work in log lines.
    Log::setSink([](const QString &line) { capturedLines().append(line); });
    QLocale::setDefault(QLocale(QLocale::German, QLocale::Austria));
    LanguageUtil::readLanguage();
    Log::setSink(nullptr);
    EXPECT_EQ(LanguageUtil::getStringByKey(u"quit"_s), fileTable(u"de"_s).value(u"quit"_s));
    ASSERT_GE(capturedLines().size(), 2);
    EXPECT_TRUE(capturedLines().first().endsWith(u"Begin read language de"_s));
    EXPECT_TRUE(capturedLines().last().endsWith(u"End read language"_s));

    EXPECT_EQ(LanguageUtil::getStringByKey(u"no_such_key"_s), u"no_such_key"_s);
    EXPECT_EQ(LanguageUtil::getStringByKey(u""_s), u""_s);
    EXPECT_FALSE(LanguageUtil::getStringByKey(u"x"_s).isNull());
}

TEST_F(LanguageUtilTest, LaterEntriesWinAndIncompleteOnesAreSkipped)
{
    QTemporaryDir dir;
    const QString path = dir.filePath(u"xx.xml"_s);
    ASSERT_TRUE(TestUtil::writeFile(
        path, "<l><a key='k' value='first'/><!-- c --><b key='k' value='second'/>"
              "<c key='only_key'/><d value='only value'/><e key='amp' value='&amp;'/></l>"));
    LanguageUtil::Table table{{u"k"_s, u"base"_s}};
    ASSERT_TRUE(LanguageUtil::readLanguageFile(path, &table));
    EXPECT_EQ(table.value(u"k"_s), u"second"_s);
    EXPECT_EQ(table.value(u"amp"_s), u"&"_s);
    EXPECT_EQ(table.size(), 2); // entries without key or value are skipped
    // A broken or missing file changes nothing.
    ASSERT_TRUE(TestUtil::writeFile(path, "<l><a key='k' value='lost'/>"));
    EXPECT_FALSE(LanguageUtil::readLanguageFile(path, &table));
    EXPECT_FALSE(LanguageUtil::readLanguageFile(dir.filePath(u"none.xml"_s), &table));
    EXPECT_EQ(table.value(u"k"_s), u"second"_s);
}

TEST_F(LanguageUtilTest, ReadersAlwaysSeeACompleteTableDuringRebuilds)
{
    const auto english = fileTable(u"en"_s);
    const auto german = fileTable(u"de"_s);
    LanguageUtil *util = LanguageUtil::instance();

    std::atomic<bool> stop{false};
    std::atomic<int> lookups{0};
    std::atomic<int> wrong{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] {
            while (!stop.load()) {
                for (const QString &key : kKeysInUse) {
                    const QString text = LanguageUtil::getStringByKey(key);
                    if (text != english.value(key) && text != german.value(key))
                        ++wrong;
                }
                const auto table = util->langs();
                if (table->size() != english.size())
                    ++wrong;
                ++lookups;
            }
        });
    }
    // Rebuild at least 40 times and until the readers have overlapped the rebuilds for a while.
    QDeadlineTimer deadline(10000);
    for (int round = 0; (round < 40 || lookups.load() < 20) && !deadline.hasExpired(); ++round)
        util->readLanguage(round % 2 ? QLocale(QLocale::German) : QLocale(QLocale::English));
    EXPECT_GE(lookups.load(), 20);
    stop = true;
    for (auto &reader : readers)
        reader.join();
    EXPECT_EQ(wrong.load(), 0);
}
