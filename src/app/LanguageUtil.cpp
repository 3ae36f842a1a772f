#include "app/LanguageUtil.h"

#include "util/Log.h"
#include "xml/GDataXMLNode.h"

#include <QFile>
#include <QMutexLocker>
#include <atomic>

using namespace Qt::StringLiterals;

namespace {
std::atomic<bool> g_instanceCreated{false};
}

LanguageUtil::LanguageUtil() : m_langs(std::make_shared<const Table>())
{
    readLanguage(QLocale());
    g_instanceCreated.store(true);
}

LanguageUtil *LanguageUtil::instance()
{
    static LanguageUtil shared;
    return &shared;
}

QString LanguageUtil::getStringByKey(const QString &key)
{
    const auto table = instance()->langs();
    const auto it = table->constFind(key);
    return it != table->constEnd() ? it.value() : key;
}

void LanguageUtil::readLanguage()
{
    const bool existed = g_instanceCreated.load();
    LanguageUtil *shared = instance(); // reads the files when it creates the instance
    if (existed)
        shared->readLanguage(QLocale());
}

void LanguageUtil::readLanguage(const QLocale &locale)
{
    auto table = std::make_shared<Table>();
    const QString code = languageCode(locale);
    FV_LOG(u"Begin read language %1"_s.arg(code));
    if (!readLanguageFile(resourcePathForLanguage(u"en"_s), table.get()))
        FV_LOG(u"The English language file cannot be read"_s);
    // With no file for the language (or an unreadable one) the English table stands.
    readLanguageFile(resourcePathForLanguage(code), table.get());
    FV_LOG(u"End read language"_s);

    QMutexLocker locker(&m_mutex);
    m_langs = std::move(table);
}

std::shared_ptr<const LanguageUtil::Table> LanguageUtil::langs() const
{
    QMutexLocker locker(&m_mutex);
    return m_langs;
}

bool LanguageUtil::readLanguageFile(const QString &path, Table *table)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    return readLanguageData(file.readAll(), path, table);
}

bool LanguageUtil::readLanguageData(const QByteArray &data, const QString &path, Table *table)
{
    FvError error;
    const auto doc = GDataXMLDocument::initWithData(data, 0, &error);
    const auto root = doc ? doc->rootElement() : nullptr;
    if (!root) {
        FV_LOG(u"Language file %1 cannot be parsed: %2"_s.arg(path, error.toString()));
        return false;
    }
    for (const auto &child : root->children()) {
        const auto element = std::dynamic_pointer_cast<GDataXMLElement>(child);
        if (!element)
            continue; // comments and the like
        const auto key = element->attributeForName(u"key"_s);
        const auto value = element->attributeForName(u"value"_s);
        if (!key || !value) {
            FV_LOG(u"Language file %1: entry without key or value skipped: %2"_s.arg(path,
                                                                                     element->XMLString()));
            continue;
        }
        table->insert(key->stringValue(), value->stringValue());
    }
    return true;
}

QString LanguageUtil::languageCode(const QLocale &locale)
{
    return QLocale::languageToCode(locale.language());
}

QString LanguageUtil::resourcePathForLanguage(const QString &code)
{
    return u":/lang/"_s + code + u".xml"_s;
}
