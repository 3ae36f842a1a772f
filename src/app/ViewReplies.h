#pragma once
// Reading the replies of the views' commands (LOGIN for CDLoginView, QUOTA for AccountView): the
// pure step between a parsed reply and what the view does with it, apart from the views so that it
// can be exercised alone. Any thread; a null document reads as a reply with nothing in it.

#include <QString>
#include <memory>

class GDataXMLDocument;

namespace ViewReplies {

// LOGIN: the RESULT, TIMEZONE and ID of the root's LOGIN elements, the last element winning;
// null strings when absent (a missing RESULT counts as success).
struct LoginReply
{
    QString result;
    QString timezone;
    QString mailId;
};
LoginReply readLogin(const std::shared_ptr<GDataXMLDocument> &document);

// QUOTA: the two numbers of the root's first QUOTA element, read as doubles from the attributes
// named `totalName` and `usedName`; 0 where absent or not a number.
struct QuotaReply
{
    double total = 0;
    double used = 0;
};
QuotaReply readQuota(const std::shared_ptr<GDataXMLDocument> &document, const QString &totalName,
                     const QString &usedName);

} // namespace ViewReplies
