// The replies the sync engine reads: LIST (top level and folder content), SYNCLIST and WORKLIST.
// The walks below read what the engine reads, element by element; point them at the engine's
// reader once that exists. Every local path made from a reply is checked against the sync-folder
// rule, and that rule against an independent one: a path the rule lets through lies below the
// sync folder, component by component.
#include "FuzzXml.h"
#include "catalogue/CataloguePaths.h"

#include <QStringList>
#include <cstdio>
#include <cstdlib>

namespace {

const QString kRoots[] = {QStringLiteral("/home/user/Cloud Folder"), QStringLiteral("/")};

QString attribute(const std::shared_ptr<GDataXMLElement> &element, const char *name)
{
    const auto node = element->attributeForName(QString::fromLatin1(name));
    return node ? node->stringValue() : QString();
}

QList<std::shared_ptr<GDataXMLElement>> elementChildren(const std::shared_ptr<GDataXMLElement> &parent)
{
    QList<std::shared_ptr<GDataXMLElement>> elements;
    for (const auto &child : parent->children()) {
        if (child->kind() == GDataXMLElementKind)
            if (auto element = std::dynamic_pointer_cast<GDataXMLElement>(child))
                elements.append(element);
    }
    return elements;
}

// Below `root` by plain string rules, independent of CataloguePaths.
bool plainlyBelow(const QString &path, const QString &root)
{
    const QString prefix = root.endsWith(u'/') ? root : QString(root + u'/');
    if (!path.startsWith(prefix) || path.size() == prefix.size() || path.contains(QChar(0)))
        return false;
    const QStringList parts = path.mid(prefix.size()).split(u'/');
    for (const QString &part : parts) {
        if (part.isEmpty() || part == u"." || part == u"..")
            return false;
    }
    return true;
}

// The local path of a server path: the first "syncfolder" stands for the sync folder; a path
// without it lies below the sync folder.
QString localPathOfServerPath(const QString &serverPath, const QString &root)
{
    const QString word = QStringLiteral("syncfolder");
    const qsizetype at = serverPath.indexOf(word);
    if (at >= 0)
        return QString(serverPath).replace(at, word.size(), root);
    return serverPath.startsWith(u'/') ? QString(root + serverPath) : QString(root + u'/' + serverPath);
}

// The engine's rule for a path from the server: taken only when inside the sync folder.
void checkPath(const QString &path, const QString &root)
{
    const bool taken = CataloguePaths::checkInside(path, root, QStringLiteral("Fuzz"));
    if (taken != plainlyBelow(path, root)) {
        std::fprintf(stderr, "path rule %s \"%s\" below \"%s\"\n", taken ? "takes" : "refuses",
                     qPrintable(path), qPrintable(root));
        std::abort();
    }
}

void checkName(const QString &name, const QString &folder, const QString &root)
{
    if (!CataloguePaths::checkName(name, QStringLiteral("Fuzz")))
        return;
    const QString path = folder.endsWith(u'/') ? QString(folder + name) : QString(folder + u'/' + name);
    checkPath(path, root);
}

// LIST: the first LIST element's children. At the top level a "DIR" with SYNC "1" and an empty
// KIND is the sync folder; in a folder listing "DIR" is a folder and any other name a file.
void readList(const std::shared_ptr<GDataXMLElement> &root, const QString &localRoot)
{
    const auto lists = root->elementsForName(QStringLiteral("LIST"));
    if (lists.isEmpty())
        return;
    for (const auto &entry : elementChildren(lists.first())) {
        const bool folder = entry->name() == u"DIR";
        if (folder && attribute(entry, "SYNC") == u"1" && attribute(entry, "KIND").isEmpty())
            (void)attribute(entry, "KEY");
        QStringList fields;
        for (const char *name : {"NAME", "TIME", "SIZE", "KEY", "PKEY", "PRIV", "MD5"})
            fields.append(attribute(entry, name));
        (void)attribute(entry, "MEMO").toInt();
        if (!folder)
            (void)attribute(entry, "sync").toInt();
        checkName(fields.first(), localRoot, localRoot);
    }
}

// SYNCLIST: every SYNCLIST element's children are the first level of the sync folder.
void readSyncList(const std::shared_ptr<GDataXMLElement> &root, const QString &localRoot)
{
    for (const auto &list : root->elementsForName(QStringLiteral("SYNCLIST"))) {
        for (const auto &entry : elementChildren(list)) {
            (void)attribute(entry, "MEMO").toInt();
            checkName(attribute(entry, "NAME"), localRoot, localRoot);
        }
    }
}

// WORKLIST: every WORKLIST element's children are server changes (ADD, DEL, RENAME, MOVE).
void readWorkList(const std::shared_ptr<GDataXMLElement> &root, const QString &localRoot)
{
    QString lastCheck;
    for (const auto &list : root->elementsForName(QStringLiteral("WORKLIST"))) {
        lastCheck = attribute(list, "ID");
        for (const auto &change : elementChildren(list)) {
            const QString kind = change->name();
            const QString key = attribute(change, "KEY");
            const bool folder = attribute(change, "FOLDER") == u"1";
            (void)folder;
            (void)key;
            if (kind == u"ADD") {
                const QString path = localPathOfServerPath(change->stringValue(), localRoot);
                checkPath(path, localRoot);
                checkName(attribute(change, "NAME"), CataloguePaths::deletingLastPathComponent(path),
                          localRoot);
                (void)attribute(change, "SIZE").toLongLong();
            } else if (kind == u"RENAME" || kind == u"MOVE") {
                checkName(attribute(change, "NAME"), localRoot, localRoot);
                (void)attribute(change, "DEST_PARENT_KEY");
            }
            const QString id = attribute(change, "ID");
            if (!id.isEmpty() && id > lastCheck)
                lastCheck = id;
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const auto document = FuzzXml::parse(data, size);
    const auto root = document ? document->rootElement() : nullptr;
    if (!root)
        return 0;
    for (const QString &localRoot : kRoots) {
        readList(root, localRoot);
        readSyncList(root, localRoot);
        readWorkList(root, localRoot);
    }
    FuzzXml::walk(root);
    return 0;
}
