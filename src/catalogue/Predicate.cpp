#include "catalogue/Predicate.h"

#include "catalogue/Records.h"

#include <QChar>

struct Predicate::Node
{
    Kind kind = Kind::True;
    QString key;
    QVariant value;
    Predicate left;
    Predicate right;
};

QString foldedString(const QString &string)
{
    const QString decomposed = string.normalized(QString::NormalizationForm_D);
    QString kept;
    kept.reserve(decomposed.size());
    for (const QChar c : decomposed) {
        const QChar::Category category = c.category();
        if (category == QChar::Mark_NonSpacing || category == QChar::Mark_SpacingCombining ||
            category == QChar::Mark_Enclosing)
            continue;
        kept.append(c);
    }
    return kept.toLower();
}

bool likeMatches(const QString &string, const QString &pattern)
{
    // Matched by code point, as the store's GLOB does on UTF-8 text.
    const QList<uint> text = string.toUcs4();
    const QList<uint> glob = pattern.toUcs4();
    qsizetype t = 0, g = 0, starG = -1, starT = 0;
    while (t < text.size()) {
        if (g < glob.size() && glob[g] == u'*') {
            starG = g++;
            starT = t;
        } else if (g < glob.size() && (glob[g] == u'?' || glob[g] == text[t])) {
            ++g;
            ++t;
        } else if (starG >= 0) {
            g = starG + 1;
            t = ++starT;
        } else {
            return false;
        }
    }
    while (g < glob.size() && glob[g] == u'*')
        ++g;
    return g == glob.size();
}

Predicate::Predicate() = default; // no node: matches everything
Predicate::Predicate(std::shared_ptr<const Node> node) : m_node(std::move(node)) {}

Predicate Predicate::comparison(Kind kind, const QString &key, const QVariant &value)
{
    auto node = std::make_shared<Node>();
    node->kind = kind;
    node->key = key;
    node->value = value;
    return Predicate(node);
}

Predicate Predicate::combination(Kind kind, const Predicate &left, const Predicate &right)
{
    auto node = std::make_shared<Node>();
    node->kind = kind;
    node->left = left;
    node->right = right;
    return Predicate(node);
}

Predicate Predicate::falsePredicate()
{
    return comparison(Kind::False, QString(), QVariant());
}

Predicate Predicate::equalTo(const QString &key, const QVariant &value)
{
    return comparison(Kind::Equal, key, value);
}

Predicate Predicate::like(const QString &key, const QString &pattern)
{
    return comparison(Kind::Like, key, pattern.isNull() ? QVariant() : QVariant(pattern));
}

Predicate Predicate::beginsWithCD(const QString &key, const QString &prefix)
{
    return comparison(Kind::BeginsWithCD, key, prefix.isNull() ? QVariant() : QVariant(prefix));
}

Predicate Predicate::andPredicate(const Predicate &left, const Predicate &right)
{
    return combination(Kind::And, left, right);
}

Predicate Predicate::orPredicate(const Predicate &left, const Predicate &right)
{
    return combination(Kind::Or, left, right);
}

Predicate operator&&(const Predicate &left, const Predicate &right)
{
    return Predicate::andPredicate(left, right);
}

Predicate operator||(const Predicate &left, const Predicate &right)
{
    return Predicate::orPredicate(left, right);
}

Predicate::Kind Predicate::kind() const
{
    return m_node ? m_node->kind : Kind::True;
}
QString Predicate::key() const
{
    return m_node ? m_node->key : QString();
}
QVariant Predicate::value() const
{
    return m_node ? m_node->value : QVariant();
}

QList<Predicate> Predicate::operands() const
{
    if (kind() == Kind::And || kind() == Kind::Or)
        return {m_node->left, m_node->right};
    return {};
}

namespace {

// The text a non-string attribute shows to like and BEGINSWITH, as the store would give it.
QString textOf(AttributeType type, const QVariant &value)
{
    switch (type) {
    case AttributeType::String:
        return value.toString();
    case AttributeType::Integer:
        return QString::number(value.toLongLong());
    case AttributeType::Boolean:
        return value.toBool() ? QStringLiteral("1") : QStringLiteral("0");
    case AttributeType::Date:
        return QString::number(value.toDateTime().toMSecsSinceEpoch());
    }
    return {};
}

} // namespace

bool Predicate::evaluateWithObject(const ManagedObject &object) const
{
    if (!m_node)
        return true;
    const Node &node = *m_node;
    switch (node.kind) {
    case Kind::True:
        return true;
    case Kind::False:
        return false;
    case Kind::And:
        return node.left.evaluateWithObject(object) && node.right.evaluateWithObject(object);
    case Kind::Or:
        return node.left.evaluateWithObject(object) || node.right.evaluateWithObject(object);
    default:
        break;
    }
    const int index = object.entity().indexOf(node.key);
    if (index < 0)
        return false;
    const AttributeType type = object.entity().attributes[std::size_t(index)].type;
    const QVariant have = object.valueAt(index);
    switch (node.kind) {
    case Kind::Equal: {
        const QVariant want = normalisedAttributeValue(type, node.value);
        if (want.isNull() || have.isNull())
            return want.isNull() && have.isNull();
        if (type == AttributeType::Date)
            return have.toDateTime().toMSecsSinceEpoch() == want.toDateTime().toMSecsSinceEpoch();
        return have == want;
    }
    case Kind::Like:
        if (node.value.isNull() || have.isNull())
            return false;
        return likeMatches(textOf(type, have), node.value.toString());
    case Kind::BeginsWithCD:
        if (node.value.isNull() || have.isNull())
            return false;
        return foldedString(textOf(type, have)).startsWith(foldedString(node.value.toString()));
    default:
        return false;
    }
}

QString Predicate::toString() const
{
    if (!m_node)
        return QStringLiteral("TRUEPREDICATE");
    const Node &node = *m_node;
    auto quoted = [](const QVariant &value) -> QString {
        if (value.isNull())
            return QStringLiteral("nil");
        QString text = value.toString();
        text.replace(u'\\', QStringLiteral("\\\\")).replace(u'"', QStringLiteral("\\\""));
        return u'"' + text + u'"';
    };
    auto nested = [](const Predicate &p, Kind parent) -> QString {
        const QString text = p.toString();
        return (p.kind() == Kind::Or && parent == Kind::And) ? u'(' + text + u')' : text;
    };
    switch (node.kind) {
    case Kind::True:
        return QStringLiteral("TRUEPREDICATE");
    case Kind::False:
        return QStringLiteral("FALSEPREDICATE");
    case Kind::Equal:
        return node.key + QStringLiteral(" == ") + quoted(node.value);
    case Kind::Like:
        return node.key + QStringLiteral(" LIKE ") + quoted(node.value);
    case Kind::BeginsWithCD:
        return node.key + QStringLiteral(" BEGINSWITH[cd] ") + quoted(node.value);
    case Kind::And:
        return nested(node.left, Kind::And) + QStringLiteral(" AND ") + nested(node.right, Kind::And);
    case Kind::Or:
        return node.left.toString() + QStringLiteral(" OR ") + node.right.toString();
    }
    return {};
}

// --- Format reader ---

namespace {

struct FormatReader
{
    const QString &text;
    const QVariantList &arguments;
    qsizetype pos = 0;
    int nextArgument = 0;
    bool failed = false;

    void skipSpace()
    {
        while (pos < text.size() && text[pos].isSpace())
            ++pos;
    }

    bool atEnd()
    {
        skipSpace();
        return pos >= text.size();
    }

    // Consumes `word` (letters compared case-insensitively) when it comes next as a whole token.
    bool take(QStringView word)
    {
        skipSpace();
        if (text.size() - pos < word.size())
            return false;
        if (QStringView(text).mid(pos, word.size()).compare(word, Qt::CaseInsensitive) != 0)
            return false;
        const qsizetype end = pos + word.size();
        if (word.front().isLetter() && end < text.size() &&
            (text[end].isLetterOrNumber() || text[end] == u'_'))
            return false;
        pos = end;
        return true;
    }

    QVariant argument()
    {
        if (nextArgument >= arguments.size()) {
            failed = true;
            return {};
        }
        return arguments[nextArgument++];
    }

    QString identifier()
    {
        skipSpace();
        const qsizetype start = pos;
        while (pos < text.size() && (text[pos].isLetterOrNumber() || text[pos] == u'_'))
            ++pos;
        return text.mid(start, pos - start);
    }

    QString keyPath()
    {
        if (take(u"%K"))
            return argument().toString();
        QString name = identifier();
        if (name.isEmpty())
            failed = true;
        return name;
    }

    QVariant operand()
    {
        skipSpace();
        if (take(u"%@"))
            return argument();
        if (pos < text.size() && (text[pos] == u'"' || text[pos] == u'\'')) {
            const QChar quote = text[pos++];
            QString value;
            while (pos < text.size() && text[pos] != quote) {
                if (text[pos] == u'\\' && pos + 1 < text.size())
                    ++pos;
                value.append(text[pos++]);
            }
            if (pos >= text.size()) {
                failed = true;
                return {};
            }
            ++pos;
            return value.isNull() ? QVariant(QStringLiteral("")) : QVariant(value);
        }
        const QString word = identifier();
        if (word.compare(u"nil", Qt::CaseInsensitive) == 0 || word.compare(u"null", Qt::CaseInsensitive) == 0)
            return {};
        if (word.compare(u"yes", Qt::CaseInsensitive) == 0 || word.compare(u"true", Qt::CaseInsensitive) == 0)
            return true;
        if (word.compare(u"no", Qt::CaseInsensitive) == 0 || word.compare(u"false", Qt::CaseInsensitive) == 0)
            return false;
        bool ok = false;
        const qlonglong number = word.toLongLong(&ok);
        if (!ok)
            failed = true;
        return number;
    }

    Predicate comparison()
    {
        if (take(u"(")) {
            Predicate inner = orExpression();
            if (!take(u")"))
                failed = true;
            return inner;
        }
        const QString key = keyPath();
        if (take(u"==") || take(u"="))
            return Predicate::equalTo(key, operand());
        if (take(u"like")) {
            const QVariant pattern = operand();
            return Predicate::like(key, pattern.isNull() ? QString() : pattern.toString());
        }
        if (take(u"beginswith[cd]")) {
            const QVariant prefix = operand();
            return Predicate::beginsWithCD(key, prefix.isNull() ? QString() : prefix.toString());
        }
        failed = true;
        return {};
    }

    Predicate andExpression()
    {
        Predicate result = comparison();
        while (!failed && (take(u"and") || take(u"&&")))
            result = Predicate::andPredicate(result, comparison());
        return result;
    }

    Predicate orExpression()
    {
        Predicate result = andExpression();
        while (!failed && (take(u"or") || take(u"||")))
            result = Predicate::orPredicate(result, andExpression());
        return result;
    }
};

} // namespace

Predicate Predicate::predicateWithFormat(const QString &format, const QVariantList &arguments, bool *ok)
{
    FormatReader reader{format, arguments};
    Predicate result = reader.orExpression();
    if (!reader.atEnd())
        reader.failed = true;
    if (ok)
        *ok = !reader.failed;
    if (reader.failed)
        return falsePredicate();
    return result;
}
