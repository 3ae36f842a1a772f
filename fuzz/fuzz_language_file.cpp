// A language file, read into a string table.
#include "FuzzXml.h"
#include "app/LanguageUtil.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes = QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size));
    LanguageUtil::Table table{{QStringLiteral("kept"), QStringLiteral("before")}};
    const bool read = LanguageUtil::readLanguageData(bytes, QStringLiteral("fuzz.xml"), &table);
    // An unreadable file leaves the table as it was.
    if (!read && (table.size() != 1 || table.value(QStringLiteral("kept")) != u"before"))
        std::abort();
    return 0;
}
