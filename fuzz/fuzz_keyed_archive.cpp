// Feeds arbitrary bytes to the archive decoder. Besides crashes and sanitizer reports it checks
// that a rejection always has a reason and that whatever decodes can be written and read back
// to the same value.
#include "FuzzSupport.h"
#include "link/KeyedArchive.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes = QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size));
    QString error;
    const auto value = KeyedArchive::unarchiveObjectWithData(bytes, &error);
    if (!value) {
        if (error.isEmpty())
            std::abort();
    } else {
        const auto again = KeyedArchive::archivedDataWithRootObject(*value, &error);
        if (!again) {
            std::fprintf(stderr, "decoded but not writable: %s\n", qPrintable(error));
            std::abort();
        }
        const auto back = KeyedArchive::unarchiveObjectWithData(*again, &error);
        if (!back || FuzzSupport::canonical(*back) != FuzzSupport::canonical(*value)) {
            std::fprintf(stderr, "round trip changed the value: %s\n%s\n%s\n", qPrintable(error),
                         qPrintable(FuzzSupport::canonical(*value)),
                         qPrintable(back ? FuzzSupport::canonical(*back) : QString()));
            std::abort();
        }
    }
    KeyedArchive::unarchiveMessage(bytes, &error);
    return 0;
}
