// Replays every corpus file of every fuzz target through the target's entry function.
#include <QDir>
#include <QFile>
#include <cstdint>
#include <cstdio>
#include <gtest/gtest.h>

#define FUZZ_ENTRY(name) extern "C" int fuzzEntry_##name(const uint8_t *data, size_t size);
#include "FuzzEntries.inc"
#undef FUZZ_ENTRY

namespace {

struct FuzzTarget
{
    const char *name;
    int (*entry)(const uint8_t *data, size_t size);
};

const FuzzTarget kTargets[] = {
#define FUZZ_ENTRY(name) {#name, fuzzEntry_##name},
#include "FuzzEntries.inc"
#undef FUZZ_ENTRY
};

class CorpusReplay : public testing::TestWithParam<FuzzTarget>
{
};

TEST_P(CorpusReplay, EveryCorpusFileIsReadWithoutFault)
{
    const QDir corpus(QStringLiteral(FERROVANE_SOURCE_DIR "/fuzz/corpus/") +
                      QString::fromLatin1(GetParam().name));
    const QStringList files = corpus.entryList(QDir::Files, QDir::Name);
    ASSERT_FALSE(files.isEmpty()) << "no seeds in " << qPrintable(corpus.path());
    for (const QString &file : files) {
        QFile input(corpus.filePath(file));
        ASSERT_TRUE(input.open(QIODevice::ReadOnly)) << qPrintable(input.fileName());
        const QByteArray bytes = input.readAll();
        // A target aborts on a broken property (and a sanitizer ends the process): the last name
        // printed is the failing input.
        std::fprintf(stderr, "replaying %s\n", qPrintable(input.fileName()));
        EXPECT_EQ(
            GetParam().entry(reinterpret_cast<const uint8_t *>(bytes.constData()), size_t(bytes.size())), 0)
            << qPrintable(input.fileName());
    }
}

INSTANTIATE_TEST_SUITE_P(Fuzz, CorpusReplay, testing::ValuesIn(kTargets),
                         [](const testing::TestParamInfo<FuzzTarget> &info) {
                             return std::string(info.param.name);
                         });

} // namespace
