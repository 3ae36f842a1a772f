// A LOGIN reply as the sign-in view reads it. Whatever session and mail id a reply carries must
// survive being written to the settings file and read back, as the next start reads them.
#include "FuzzXml.h"
#include "app/SettingsFile.h"
#include "app/ViewReplies.h"

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const auto document = FuzzXml::parse(data, size);
    const ViewReplies::LoginReply reply = ViewReplies::readLogin(document);
    if (!document)
        return 0;
    FuzzXml::walk(document->rootElement());

    const QVariantMap stored{{QStringLiteral("kKeySESSTION"), reply.result},
                             {QStringLiteral("kKeyUseIDMail"), reply.mailId},
                             {QStringLiteral("kKeyTimezone"), reply.timezone}};
    QVariantMap read;
    if (!SettingsFile::parse(SettingsFile::serialize(stored), &read)) {
        std::fprintf(stderr, "settings with session \"%s\" cannot be read back\n", qPrintable(reply.result));
        std::abort();
    }
    for (auto it = stored.cbegin(); it != stored.cend(); ++it) {
        // A null string is stored as an empty one.
        if (read.value(it.key()).toString() != it.value().toString()) {
            std::fprintf(stderr, "%s changed in the settings: \"%s\" -> \"%s\"\n", qPrintable(it.key()),
                         qPrintable(it.value().toString()), qPrintable(read.value(it.key()).toString()));
            std::abort();
        }
    }
    return 0;
}
