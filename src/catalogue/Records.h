#pragma once
// The catalogue's records: Directory (a synced folder), File (a synced file), Task (a pending local
// change to tell the server) and Infomation (the signed-in account), over a common ManagedObject.
//
// Every attribute is optional. Typed accessors:
//   strings  -> QString, a null QString means absent (the empty string "" is a value and is kept);
//   integers -> std::optional<qint64>; booleans -> std::optional<bool>; std::nullopt means absent;
//   dates    -> QDateTime, an invalid QDateTime means absent.
// Setting an attribute edits the object in memory and marks it changed in its context; the change
// reaches the store at the context's save(). Objects are shared (std::shared_ptr) and belong to the
// context that made or fetched them: use them only on that context's thread, never hand them to
// another context (fetch by key or path there instead).

#include <QDateTime>
#include <QString>
#include <QVariant>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

class ManagedObject;
class ManagedObjectContext;

enum class AttributeType { String, Integer, Boolean, Date };

struct AttributeDescription
{
    QString name;
    AttributeType type;
};

// One entity of the model: its name, its attributes in declaration order, and how to make an object.
struct EntityDescription
{
    QString name;
    std::vector<AttributeDescription> attributes;
    std::function<std::shared_ptr<ManagedObject>()> factory;

    // Index of an attribute, -1 when the entity has none of that name.
    int indexOf(const QString &attribute) const;
    // Index of the `path` attribute (kept folded and indexed for prefix queries), or -1.
    int pathIndex() const { return indexOf(QStringLiteral("path")); }

    static const EntityDescription *entityForName(const QString &name);
    static const std::vector<const EntityDescription *> &allEntities();
};

// A value converted to an attribute type (QString, qlonglong, bool or QDateTime); a null QVariant
// when it is absent or cannot be read as that type. Objects store, and predicates compare, this form.
QVariant normalisedAttributeValue(AttributeType type, const QVariant &value);

class ManagedObject : public std::enable_shared_from_this<ManagedObject>
{
public:
    explicit ManagedObject(const EntityDescription &entity);
    virtual ~ManagedObject();
    ManagedObject(const ManagedObject &) = delete;
    ManagedObject &operator=(const ManagedObject &) = delete;

    const EntityDescription &entity() const { return m_entity; }
    QString entityName() const { return m_entity.name; }

    // Generic access by attribute name. A null QVariant means absent (also for an unknown name).
    QVariant valueForKey(const QString &key) const;
    // Stores the value converted to the attribute's type; false when the entity has no such attribute.
    bool setValue(const QVariant &value, const QString &key);
    QVariant valueAt(int index) const;
    void setValueAt(int index, const QVariant &value);

    // The owning context; null once the context is gone or the object was never inserted.
    ManagedObjectContext *managedObjectContext() const { return m_context; }
    // The row's id in the store; 0 until the object has been saved.
    qint64 objectID() const { return m_rowId; }
    bool isInserted() const { return m_state == State::Inserted; }
    bool isUpdated() const { return m_state == State::Updated; }
    bool isDeleted() const { return m_state == State::Deleted; }
    bool hasChanges() const { return isInserted() || isUpdated() || isDeleted(); }

protected:
    QString stringAt(int index) const;
    void setStringAt(int index, const QString &value);
    std::optional<qint64> integerAt(int index) const;
    void setIntegerAt(int index, std::optional<qint64> value);
    std::optional<bool> boolAt(int index) const;
    void setBoolAt(int index, std::optional<bool> value);
    QDateTime dateAt(int index) const;
    void setDateAt(int index, const QDateTime &value);

private:
    friend class ManagedObjectContext;
    enum class State { Detached, Clean, Inserted, Updated, Deleted };

    const EntityDescription &m_entity;
    std::vector<QVariant> m_values;
    ManagedObjectContext *m_context = nullptr;
    qint64 m_rowId = 0;
    State m_state = State::Detached;
};

// Directory and File share their attributes; this base holds their accessors.
class CatalogueItem : public ManagedObject
{
public:
    enum Attribute { Desc, Key, Kind, Md5, Memo, Name, Owner, Path, Pkey, Priv, Size, Sync, Tag, Time };

    QString desc() const { return stringAt(Desc); }
    void setDesc(const QString &v) { setStringAt(Desc, v); }
    QString key() const { return stringAt(Key); }
    void setKey(const QString &v) { setStringAt(Key, v); }
    QString kind() const { return stringAt(Kind); }
    void setKind(const QString &v) { setStringAt(Kind, v); }
    QString md5() const { return stringAt(Md5); }
    void setMd5(const QString &v) { setStringAt(Md5, v); }
    std::optional<qint64> memo() const { return integerAt(Memo); }
    void setMemo(std::optional<qint64> v) { setIntegerAt(Memo, v); }
    QString name() const { return stringAt(Name); }
    void setName(const QString &v) { setStringAt(Name, v); }
    QString owner() const { return stringAt(Owner); }
    void setOwner(const QString &v) { setStringAt(Owner, v); }
    QString path() const { return stringAt(Path); }
    void setPath(const QString &v) { setStringAt(Path, v); }
    QString pkey() const { return stringAt(Pkey); }
    void setPkey(const QString &v) { setStringAt(Pkey, v); }
    QString priv() const { return stringAt(Priv); }
    void setPriv(const QString &v) { setStringAt(Priv, v); }
    QString size() const { return stringAt(Size); }
    void setSize(const QString &v) { setStringAt(Size, v); }
    std::optional<bool> sync() const { return boolAt(Sync); }
    void setSync(std::optional<bool> v) { setBoolAt(Sync, v); }
    QString tag() const { return stringAt(Tag); }
    void setTag(const QString &v) { setStringAt(Tag, v); }
    QString time() const { return stringAt(Time); }
    void setTime(const QString &v) { setStringAt(Time, v); }

protected:
    using ManagedObject::ManagedObject;
};

class Directory final : public CatalogueItem
{
public:
    static QString entityName() { return QStringLiteral("Directory"); }
    static const EntityDescription &entityDescription();
    Directory();
};

class File final : public CatalogueItem
{
public:
    enum FileAttribute { UploadDone = Time + 1 };

    static QString entityName() { return QStringLiteral("File"); }
    static const EntityDescription &entityDescription();
    File();

    std::optional<bool> uploadDone() const { return boolAt(UploadDone); }
    void setUploadDone(std::optional<bool> v) { setBoolAt(UploadDone, v); }
};

class Task final : public ManagedObject
{
public:
    enum Attribute { Folder, Name, NewPath, Path, TaskType, Time };

    static QString entityName() { return QStringLiteral("Task"); }
    static const EntityDescription &entityDescription();
    Task();

    std::optional<bool> folder() const { return boolAt(Folder); }
    void setFolder(std::optional<bool> v) { setBoolAt(Folder, v); }
    QString name() const { return stringAt(Name); }
    void setName(const QString &v) { setStringAt(Name, v); }
    QString newPath() const { return stringAt(NewPath); }
    void setNewPath(const QString &v) { setStringAt(NewPath, v); }
    QString path() const { return stringAt(Path); }
    void setPath(const QString &v) { setStringAt(Path, v); }
    std::optional<qint64> taskType() const { return integerAt(TaskType); }
    void setTaskType(std::optional<qint64> v) { setIntegerAt(TaskType, v); }
    // Stored to the millisecond.
    QDateTime time() const { return dateAt(Time); }
    void setTime(const QDateTime &v) { setDateAt(Time, v); }
};

class Infomation final : public ManagedObject
{
public:
    enum Attribute {
        Account,
        AutoLogin,
        CloudFolderKey,
        Domain,
        LastUpdate,
        Password,
        Path,
        Session,
        Timezone,
        FirstSync
    };

    static QString entityName() { return QStringLiteral("Infomation"); }
    static const EntityDescription &entityDescription();
    Infomation();

    QString account() const { return stringAt(Account); }
    void setAccount(const QString &v) { setStringAt(Account, v); }
    std::optional<bool> autoLogin() const { return boolAt(AutoLogin); }
    void setAutoLogin(std::optional<bool> v) { setBoolAt(AutoLogin, v); }
    QString cloudFolderKey() const { return stringAt(CloudFolderKey); }
    void setCloudFolderKey(const QString &v) { setStringAt(CloudFolderKey, v); }
    QString domain() const { return stringAt(Domain); }
    void setDomain(const QString &v) { setStringAt(Domain, v); }
    QString lastUpdate() const { return stringAt(LastUpdate); }
    void setLastUpdate(const QString &v) { setStringAt(LastUpdate, v); }
    QString password() const { return stringAt(Password); }
    void setPassword(const QString &v) { setStringAt(Password, v); }
    QString path() const { return stringAt(Path); }
    void setPath(const QString &v) { setStringAt(Path, v); }
    QString session() const { return stringAt(Session); }
    void setSession(const QString &v) { setStringAt(Session, v); }
    QString timezone() const { return stringAt(Timezone); }
    void setTimezone(const QString &v) { setStringAt(Timezone, v); }
    std::optional<bool> firstSync() const { return boolAt(FirstSync); }
    void setFirstSync(std::optional<bool> v) { setBoolAt(FirstSync, v); }
};

using ManagedObjectPtr = std::shared_ptr<ManagedObject>;
using DirectoryPtr = std::shared_ptr<Directory>;
using FilePtr = std::shared_ptr<File>;
using TaskPtr = std::shared_ptr<Task>;
using InfomationPtr = std::shared_ptr<Infomation>;
