// The update description: the "version" and "build" of the root's first "update_mac" child, and
// the comparison with the running program's (versions without their dots, as integers).
// Read here through the XML layer; point it at the update checker's reader once that exists.
#include "FuzzXml.h"

#include <QString>

namespace {

struct UpdateOffer
{
    QString version;
    QString build;
    bool newer = false;
};

UpdateOffer readUpdateDescription(const std::shared_ptr<GDataXMLDocument> &document,
                                  const QString &ownVersion, const QString &ownBuild)
{
    UpdateOffer offer;
    const auto root = document ? document->rootElement() : nullptr;
    const auto found = root ? root->elementsForName(QStringLiteral("update_mac"))
                            : QList<std::shared_ptr<GDataXMLElement>>();
    if (found.isEmpty())
        return offer;
    const auto text = [&](const char *name) {
        const auto attribute = found.first()->attributeForName(QString::fromLatin1(name));
        return attribute ? attribute->stringValue() : QString();
    };
    offer.version = text("version");
    offer.build = text("build");
    const qlonglong server = QString(offer.version).remove(u'.').toLongLong();
    const qlonglong own = QString(ownVersion).remove(u'.').toLongLong();
    offer.newer = server > own || (server == own && offer.build.toLongLong() > ownBuild.toLongLong());
    return offer;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const auto document = FuzzXml::parse(data, size);
    (void)readUpdateDescription(document, QStringLiteral("0.1.0"), QStringLiteral("1"));
    if (document)
        FuzzXml::walk(document->rootElement());
    return 0;
}
