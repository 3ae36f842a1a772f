#pragma once
// Fetch requests for the catalogue: predicates, sort descriptors and the request itself.
//
// Predicates are immutable values, cheap to copy. Each kind has two readings that agree: a SQL
// condition (StoreSql) for the rows in the store, and evaluateWithObject() for objects with
// unsaved edits in a context, so a fetch sees pending changes exactly as a save would store them.
//
//  - equalTo(key, value): `key == value`. Strings compare exactly; a null value matches an absent
//    attribute.
//  - like(key, pattern): the whole string matches the pattern, case-sensitively; "*" stands for any
//    run of characters, "?" for one character; every other character (also "[" and "]") is literal.
//    A pattern without wildcards is an equality lookup (indexed). A null pattern matches nothing.
//  - beginsWithCD(key, prefix): `key BEGINSWITH[cd] prefix`: the attribute starts with the prefix
//    once both are folded (foldedString: case and diacritics ignored). On `path` this is an indexed
//    range scan over a folded column.
//  - AND / OR of predicates. A default-constructed Predicate matches everything; falsePredicate()
//    nothing.

#include <QList>
#include <QString>
#include <QVariant>
#include <QVariantList>
#include <memory>

class ManagedObject;

// Case- and diacritic-folded form used for [cd] comparisons: canonical decomposition, combining
// marks dropped, lower-cased ("Écoute" -> "ecoute").
QString foldedString(const QString &string);

class Predicate
{
public:
    enum class Kind { True, False, Equal, Like, BeginsWithCD, And, Or };

    Predicate();

    static Predicate falsePredicate();
    static Predicate equalTo(const QString &key, const QVariant &value);
    static Predicate like(const QString &key, const QString &pattern);
    static Predicate beginsWithCD(const QString &key, const QString &prefix);
    static Predicate andPredicate(const Predicate &left, const Predicate &right);
    static Predicate orPredicate(const Predicate &left, const Predicate &right);

    // A small format reader for the query texts the catalogue uses, e.g.
    //   predicateWithFormat("%K like %@ and %K like %@", {"key", key, "path", path})
    // Terms: (`%K` | attribute name) (`==` | `=` | `like` | `BEGINSWITH[cd]`) (`%@` | quoted string),
    // joined by and/AND/&& and or/OR/|| (AND binds tighter), parentheses allowed. `%K` and `%@`
    // take the next argument. On a malformed format `ok` is set false and the result matches nothing.
    static Predicate predicateWithFormat(const QString &format, const QVariantList &arguments,
                                         bool *ok = nullptr);

    Kind kind() const;
    bool isTrue() const { return kind() == Kind::True; }
    QString key() const;
    QVariant value() const;
    QList<Predicate> operands() const;

    bool evaluateWithObject(const ManagedObject &object) const;
    // For diagnostic lines: `key LIKE "x" AND path BEGINSWITH[cd] "/a/"`.
    QString toString() const;

private:
    struct Node;
    explicit Predicate(std::shared_ptr<const Node> node);
    static Predicate comparison(Kind kind, const QString &key, const QVariant &value);
    static Predicate combination(Kind kind, const Predicate &left, const Predicate &right);
    std::shared_ptr<const Node> m_node;
};

Predicate operator&&(const Predicate &left, const Predicate &right);
Predicate operator||(const Predicate &left, const Predicate &right);

// `like` semantics on plain strings, for callers that match names themselves.
bool likeMatches(const QString &string, const QString &pattern);

struct SortDescriptor
{
    QString key;
    bool ascending = true;

    static SortDescriptor sortDescriptorWithKey(const QString &key, bool ascending)
    {
        return SortDescriptor{key, ascending};
    }
};

struct FetchRequest
{
    QString entityName;
    Predicate predicate;
    QList<SortDescriptor> sortDescriptors;
    int fetchLimit = 0; // 0: no limit

    static FetchRequest fetchRequestWithEntityName(const QString &entityName)
    {
        FetchRequest request;
        request.entityName = entityName;
        return request;
    }
};
