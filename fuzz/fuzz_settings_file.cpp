// config.plist as the settings are read at start. Whatever reads must be written back in a form
// that reads again to the same settings: the file is rewritten on every change.
#include "FuzzSupport.h"
#include "app/SettingsFile.h"

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes = QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size));
    QVariantMap values;
    if (!SettingsFile::parse(bytes, &values))
        return 0;
    const QByteArray written = SettingsFile::serialize(values);
    QVariantMap again;
    if (!SettingsFile::parse(written, &again)) {
        std::fprintf(stderr, "written settings cannot be read back:\n%s\n", written.constData());
        std::abort();
    }
    // The first write may normalise (binary to XML, fractions of seconds); from then on it is stable.
    const QByteArray rewritten = SettingsFile::serialize(again);
    if (rewritten != written) {
        std::fprintf(stderr, "settings change on every write:\n%s\n---\n%s\n", written.constData(),
                     rewritten.constData());
        std::abort();
    }
    return 0;
}
