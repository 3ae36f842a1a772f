// A QUOTA reply as the account panel reads it.
#include "FuzzXml.h"
#include "app/ViewReplies.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const auto document = FuzzXml::parse(data, size);
    const ViewReplies::QuotaReply quota =
        ViewReplies::readQuota(document, QStringLiteral("TOTAL"), QStringLiteral("USED"));
    (void)quota;
    if (document)
        FuzzXml::walk(document->rootElement());
    return 0;
}
