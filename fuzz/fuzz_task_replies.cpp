// The replies of the task executor's commands (PUT, RENAME, DEL, MOVE) and of SERVERTIME and INFO,
// read as the catalogue reads them.
#include "FuzzXml.h"
#include "catalogue/CommandReplies.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const auto document = FuzzXml::parse(data, size);

    const CommandReplies::PutReply put = CommandReplies::readPut(document);
    if (put.refusal && (*put.refusal == 1 || *put.refusal == -1))
        std::abort();
    for (const char *command : {"RENAME", "DEL"}) {
        for (const auto &item : CommandReplies::items(document, QString::fromLatin1(command)))
            (void)CommandReplies::itemCode(item);
    }
    for (const auto &item : CommandReplies::items(document, QStringLiteral("MOVE")))
        (void)CommandReplies::attribute(item, QStringLiteral("RESULT")).trimmed().toInt();
    (void)CommandReplies::readServerTime(document);
    const QStringList info = CommandReplies::readInfo(document);
    if (!info.isEmpty() && info.size() != 9)
        std::abort();

    if (document)
        FuzzXml::walk(document->rootElement());
    return 0;
}
