#include "app/ViewReplies.h"

#include "util/Log.h"
#include "xml/GDataXMLNode.h"

namespace ViewReplies {

namespace {
QString attributeText(const std::shared_ptr<GDataXMLElement> &element, const QString &name)
{
    const std::shared_ptr<GDataXMLNode> attribute = element ? element->attributeForName(name) : nullptr;
    return attribute ? attribute->stringValue() : QString();
}

QList<std::shared_ptr<GDataXMLElement>> rootElements(const std::shared_ptr<GDataXMLDocument> &document,
                                                     const QString &name)
{
    const std::shared_ptr<GDataXMLElement> root = document ? document->rootElement() : nullptr;
    return root ? root->elementsForName(name) : QList<std::shared_ptr<GDataXMLElement>>();
}
} // namespace

LoginReply readLogin(const std::shared_ptr<GDataXMLDocument> &document)
{
    LoginReply reply;
    for (const std::shared_ptr<GDataXMLElement> &element : rootElements(document, QStringLiteral("LOGIN"))) {
        FV_LOG(QStringLiteral("Element Name: %1").arg(element->name()));
        reply.result = attributeText(element, QStringLiteral("RESULT"));
        FV_LOG(QStringLiteral("==== Result Login: %1 ====").arg(reply.result));
        reply.timezone = attributeText(element, QStringLiteral("TIMEZONE"));
        reply.mailId = attributeText(element, QStringLiteral("ID"));
    }
    return reply;
}

QuotaReply readQuota(const std::shared_ptr<GDataXMLDocument> &document, const QString &totalName,
                     const QString &usedName)
{
    const std::shared_ptr<GDataXMLElement> quota = rootElements(document, QStringLiteral("QUOTA")).value(0);
    return {attributeText(quota, totalName).trimmed().toDouble(),
            attributeText(quota, usedName).trimmed().toDouble()};
}

} // namespace ViewReplies
