#include "link/KeyedArchive.h"

#include "LinkTestUtil.h"
#include "common/TestUtil.h"
#include "link/LinkNames.h"

#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <plist/plist.h>

using LinkTestUtil::ArchiveBuilder;
using LinkTestUtil::describe;

namespace {

// Parses bytes with libplist; the caller frees the result.
plist_t parse(const QByteArray &bytes)
{
    plist_t node = nullptr;
    plist_from_bin(bytes.constData(), uint32_t(bytes.size()), &node);
    return node;
}

QString stringAt(plist_t node)
{
    uint64_t length = 0;
    const char *text = plist_get_string_ptr(node, &length);
    return QString::fromUtf8(text, qsizetype(length));
}

uint64_t uidOf(plist_t node)
{
    uint64_t value = 0;
    EXPECT_EQ(plist_get_node_type(node), PLIST_UID);
    plist_get_uid_val(node, &value);
    return value;
}

QString classNameOf(plist_t objects, plist_t object)
{
    plist_t cls = plist_array_get_item(objects, uint32_t(uidOf(plist_dict_get_item(object, "$class"))));
    return stringAt(plist_dict_get_item(cls, "$classname"));
}

} // namespace

TEST(KeyedArchive, MessagesRoundTripWithTwoAndThreeItems)
{
    const QVariantMap nested{{QStringLiteral("inner"), QStringList{QStringLiteral("x"), QStringLiteral("y")}},
                             {QStringLiteral("depth"), 2}};
    const QVariantMap userInfo{
        {LinkNames::kUserInfoObjectKey, QStringList{QStringLiteral("/home/u/CloudFolder/a.txt"),
                                                    QStringLiteral("/home/u/CloudFolder/b.txt")}},
        {QStringLiteral("count"), -3},
        {QStringLiteral("ratio"), 0.25},
        {QStringLiteral("flag"), true},
        {QStringLiteral("nested"), nested},
        {QStringLiteral("empty"), QVariantList{}},
    };
    struct Case
    {
        QVariant object;
        std::optional<QVariantMap> userInfo;
    };
    const QList<Case> cases = {
        {QStringLiteral("/home/u/CloudFolder/Ünïcødé 文件.txt"), std::nullopt},
        {QVariant(), std::nullopt},
        {QStringList{QStringLiteral("/a"), QStringLiteral("/b")}, std::nullopt},
        {QStringLiteral("/home/u/CloudFolder/a.txt"), userInfo},
        {QVariant(), QVariantMap{}},
    };
    for (const Case &c : cases) {
        const auto bytes =
            KeyedArchive::archiveMessage(LinkNames::kKeyMyFSListenerRenameFile, c.object, c.userInfo);
        ASSERT_TRUE(bytes);
        QString error;
        const auto items = KeyedArchive::unarchiveMessage(*bytes, &error);
        ASSERT_TRUE(items) << qPrintable(error);
        ASSERT_EQ(items->size(), c.userInfo ? 3 : 2);
        EXPECT_EQ((*items)[0].toString(), LinkNames::kKeyMyFSListenerRenameFile);
        if (c.object.isValid()) {
            EXPECT_EQ((*items)[1].toStringList(), c.object.toStringList());
        } else {
            EXPECT_FALSE((*items)[1].isValid());
        }
        if (c.userInfo) {
            EXPECT_EQ(describe((*items)[2]), describe(*c.userInfo));
        }
    }
}

TEST(KeyedArchive, WritesTheStandardLayoutThatOtherReadersAccept)
{
    const QVariantMap userInfo{
        {QStringLiteral("object"), QStringList{QStringLiteral("/p"), QStringLiteral("/q")}}};
    const auto bytes = KeyedArchive::archiveMessage(QStringLiteral("kKeyMyFSListenerRenameDir"),
                                                    QStringLiteral("/p"), userInfo);
    ASSERT_TRUE(bytes);
    ASSERT_TRUE(bytes->startsWith("bplist00"));

    plist_t archive = parse(*bytes);
    ASSERT_NE(archive, nullptr);
    EXPECT_EQ(stringAt(plist_dict_get_item(archive, "$archiver")), u"NSKeyedArchiver");
    uint64_t version = 0;
    plist_get_uint_val(plist_dict_get_item(archive, "$version"), &version);
    EXPECT_EQ(version, 100000u);
    plist_t objects = plist_dict_get_item(archive, "$objects");
    EXPECT_EQ(stringAt(plist_array_get_item(objects, 0)), u"$null");
    const uint64_t rootIndex = uidOf(plist_dict_get_item(plist_dict_get_item(archive, "$top"), "root"));
    EXPECT_EQ(rootIndex, 1u);

    plist_t root = plist_array_get_item(objects, uint32_t(rootIndex));
    EXPECT_EQ(classNameOf(objects, root), u"NSArray");
    plist_t refs = plist_dict_get_item(root, "NS.objects");
    ASSERT_EQ(plist_array_get_size(refs), 3u);
    // The object string "/p" is stored once and shared with the user info's list.
    const uint64_t objectRef = uidOf(plist_array_get_item(refs, 1));
    EXPECT_EQ(stringAt(plist_array_get_item(objects, uint32_t(objectRef))), u"/p");
    plist_t info = plist_array_get_item(objects, uint32_t(uidOf(plist_array_get_item(refs, 2))));
    EXPECT_EQ(classNameOf(objects, info), u"NSDictionary");
    EXPECT_EQ(plist_array_get_size(plist_dict_get_item(info, "NS.keys")), 1u);
    plist_t list = plist_array_get_item(
        objects, uint32_t(uidOf(plist_array_get_item(plist_dict_get_item(info, "NS.objects"), 0))));
    EXPECT_EQ(uidOf(plist_array_get_item(plist_dict_get_item(list, "NS.objects"), 0)), objectRef);
    plist_t cls = plist_array_get_item(objects, uint32_t(uidOf(plist_dict_get_item(root, "$class"))));
    plist_t chain = plist_dict_get_item(cls, "$classes");
    ASSERT_EQ(plist_array_get_size(chain), 2u);
    EXPECT_EQ(stringAt(plist_array_get_item(chain, 1)), u"NSObject");
    plist_free(archive);

    const QString plistutil = QStandardPaths::findExecutable(QStringLiteral("plistutil"));
    if (plistutil.isEmpty())
        GTEST_SKIP() << "plistutil is not installed";
    QTemporaryDir dir;
    const QString file = dir.filePath(QStringLiteral("message.plist"));
    ASSERT_TRUE(TestUtil::writeFile(file, *bytes));
    QProcess tool;
    tool.start(plistutil, {QStringLiteral("-i"), file});
    ASSERT_TRUE(tool.waitForFinished(10000));
    EXPECT_EQ(tool.exitCode(), 0);
    const QByteArray xml = tool.readAllStandardOutput();
    EXPECT_TRUE(xml.contains("<string>NSKeyedArchiver</string>")) << xml.constData();
    EXPECT_TRUE(xml.contains("<string>kKeyMyFSListenerRenameDir</string>"));
    EXPECT_TRUE(xml.contains("<key>CF$UID</key>"));
}

TEST(KeyedArchive, DecodesArchivesWrittenByOtherArchivers)
{
    // Mutable classes, NS.string strings, NSNull and a nil reference, laid out in an order
    // this encoder never uses (children before their parent, root last).
    ArchiveBuilder b;
    const uint64_t mutableArray = b.addClass("NSMutableArray");
    const uint64_t mutableDict = b.addClass("NSMutableDictionary");
    const uint64_t mutableString = b.addClass("NSMutableString");
    const uint64_t nullClass = b.addClass("NSNull");
    const uint64_t name = b.addString("kKeyMyFSListenerDeleteDir");
    plist_t text = plist_new_dict();
    plist_dict_set_item(text, "NS.string", plist_new_string("/home/u/CloudFolder/dir"));
    plist_dict_set_item(text, "$class", plist_new_uid(mutableString));
    const uint64_t path = b.add(text);
    plist_t nullObject = plist_new_dict();
    plist_dict_set_item(nullObject, "$class", plist_new_uid(nullClass));
    const uint64_t null = b.add(nullObject);
    const uint64_t list = b.addArray({path, null}, mutableArray);
    const uint64_t key = b.addString("object");
    const uint64_t sizeKey = b.addString("size");
    const uint64_t size = b.add(plist_new_uint(7));
    const uint64_t info = b.addDictionary({key, sizeKey}, {list, size}, mutableDict);
    const uint64_t root = b.addArray({name, path, info}, mutableArray);

    QString error;
    const auto items = KeyedArchive::unarchiveMessage(b.build(root), &error);
    ASSERT_TRUE(items) << qPrintable(error);
    EXPECT_EQ((*items)[0].toString(), u"kKeyMyFSListenerDeleteDir");
    EXPECT_EQ((*items)[1].toString(), u"/home/u/CloudFolder/dir");
    const QVariantMap map = (*items)[2].toMap();
    const QVariantList payload = map.value(QStringLiteral("object")).toList();
    ASSERT_EQ(payload.size(), 2);
    EXPECT_EQ(payload[0].toString(), u"/home/u/CloudFolder/dir");
    EXPECT_FALSE(payload[1].isValid());
    EXPECT_EQ(map.value(QStringLiteral("size")).toInt(), 7);

    // A nil root decodes to a null value, which is not a message.
    const auto nilRoot = KeyedArchive::unarchiveObjectWithData(b.build(0));
    ASSERT_TRUE(nilRoot);
    EXPECT_FALSE(nilRoot->isValid());
    EXPECT_FALSE(KeyedArchive::unarchiveMessage(b.build(0), &error));
}

TEST(KeyedArchive, RejectsMalformedArchivesWithAReason)
{
    struct Bad
    {
        const char *what;
        QByteArray bytes;
    };
    QList<Bad> cases;
    const auto add = [&cases](const char *what, const QByteArray &bytes) { cases.append({what, bytes}); };
    {
        ArchiveBuilder b;
        const uint64_t s = b.addString("x");
        add("wrong archiver", b.build(s, "NSArchiver"));
        add("wrong version", b.build(s, "NSKeyedArchiver", 99999));
        add("dangling root", b.build(42));
    }
    {
        ArchiveBuilder b;
        const uint64_t cls = b.addClass("NSArray");
        const uint64_t array = b.addArray({1, 7}, cls);
        add("dangling element", b.build(array));
    }
    {
        ArchiveBuilder b;
        const uint64_t cls = b.addClass("NSArray");
        const uint64_t array = b.addArray({}, cls);
        b.set(array, plist_new_dict());
        plist_t self = plist_new_dict();
        plist_dict_set_item(self, "NS.objects", LinkTestUtil::uidArray({array}));
        plist_dict_set_item(self, "$class", plist_new_uid(cls));
        b.set(array, self);
        add("array containing itself", b.build(array));
    }
    {
        ArchiveBuilder b;
        const uint64_t cls = b.addClass("NSArray");
        uint64_t inner = b.addString("leaf");
        for (int i = 0; i < KeyedArchive::kMaxDepth + 5; ++i)
            inner = b.addArray({inner}, cls);
        add("nesting too deep", b.build(inner));
    }
    {
        // 40 levels of an array holding its child twice: 2^40 values if expanded.
        ArchiveBuilder b;
        const uint64_t cls = b.addClass("NSArray");
        uint64_t inner = b.addString("leaf");
        for (int i = 0; i < 30; ++i)
            inner = b.addArray({inner, inner}, cls);
        add("shared children expanding without bound", b.build(inner));
    }
    {
        ArchiveBuilder b;
        const uint64_t cls = b.addClass("NSDictionary");
        const uint64_t number = b.add(plist_new_uint(1));
        add("non-string dictionary key", b.build(b.addDictionary({number}, {number}, cls)));
        const uint64_t key = b.addString("k");
        add("keys and values of different counts", b.build(b.addDictionary({key, key}, {number}, cls)));
    }
    {
        ArchiveBuilder b;
        const uint64_t cls = b.addClass("NSURL");
        plist_t url = plist_new_dict();
        plist_dict_set_item(url, "NS.relative", plist_new_uid(0));
        plist_dict_set_item(url, "$class", plist_new_uid(cls));
        add("unknown class", b.build(b.add(url)));
        plist_t noClass = plist_new_dict();
        plist_dict_set_item(noClass, "NS.objects", LinkTestUtil::uidArray({}));
        add("object without class", b.build(b.add(noClass)));
        add("date value", b.build(b.add(plist_new_date(0, 0))));
        add("data value", b.build(b.add(plist_new_data("ab", 2))));
        plist_t arrayClass = plist_new_dict();
        plist_dict_set_item(arrayClass, "$classname", plist_new_string("NSArray"));
        const uint64_t arrayCls = b.add(arrayClass);
        plist_t plainRefs = plist_new_dict();
        plist_t items = plist_new_array();
        plist_array_append_item(items, plist_new_string("not a reference"));
        plist_dict_set_item(plainRefs, "NS.objects", items);
        plist_dict_set_item(plainRefs, "$class", plist_new_uid(arrayCls));
        add("array element that is not a reference", b.build(b.add(plainRefs)));
    }
    {
        plist_t archive = plist_new_dict();
        plist_dict_set_item(archive, "$archiver", plist_new_string("NSKeyedArchiver"));
        plist_dict_set_item(archive, "$version", plist_new_uint(100000));
        plist_t objects = plist_new_array();
        plist_array_append_item(objects, plist_new_string("first"));
        plist_dict_set_item(archive, "$objects", objects);
        plist_t top = plist_new_dict();
        plist_dict_set_item(top, "root", plist_new_uid(0));
        plist_dict_set_item(archive, "$top", top);
        add("objects not starting with $null", LinkTestUtil::toBinary(archive));
        plist_dict_remove_item(archive, "$top");
        add("no $top", LinkTestUtil::toBinary(archive));
        plist_free(archive);
        plist_t array = plist_new_array();
        add("top level not a dictionary", LinkTestUtil::toBinary(array));
        plist_free(array);
    }
    {
        // Non-ASCII strings are stored as UTF-16, where a NUL survives parsing.
        QByteArray withNul = *KeyedArchive::archivedDataWithRootObject(QStringLiteral("a#文"));
        withNul[withNul.indexOf(QByteArray("\0#", 2)) + 1] = '\0';
        add("string with a NUL character", withNul);
    }
    add("empty", QByteArray());
    add("text", QByteArray("00042 hello"));
    add("XML property list", QByteArray("<?xml version=\"1.0\"?><plist><dict/></plist>"));
    add("header only", QByteArray("bplist00"));

    for (const Bad &c : cases) {
        QString error;
        EXPECT_FALSE(KeyedArchive::unarchiveObjectWithData(c.bytes, &error)) << c.what;
        EXPECT_FALSE(error.isEmpty()) << c.what;
    }

    // Every proper prefix of a valid archive is rejected (its trailer is gone).
    const auto valid =
        KeyedArchive::archiveMessage(QStringLiteral("n"), QStringLiteral("/o"),
                                     QVariantMap{{QStringLiteral("object"), QStringLiteral("/o")}});
    ASSERT_TRUE(valid);
    for (qsizetype n = 0; n < valid->size(); ++n) {
        QString error;
        EXPECT_FALSE(KeyedArchive::unarchiveObjectWithData(valid->left(n), &error)) << n;
    }
}

TEST(KeyedArchive, MessagesOfTheWrongShapeAreRejected)
{
    const QList<QVariant> roots = {
        QVariantList{QStringLiteral("only a name")},
        QVariantList{QStringLiteral("n"), QStringLiteral("o"), QVariantMap{}, QStringLiteral("extra")},
        QVariantList{42, QStringLiteral("o")},
        QVariantList{QStringLiteral("n"), QStringLiteral("o"), QStringLiteral("not a dictionary")},
        QVariantList{QStringLiteral("n"), QVariantMap{}},
        QVariantList{QStringLiteral("n"), QVariantList{QStringLiteral("a"), 3}},
        QStringLiteral("not a list"),
    };
    for (const QVariant &root : roots) {
        const auto bytes = KeyedArchive::archivedDataWithRootObject(root);
        ASSERT_TRUE(bytes);
        QString error;
        EXPECT_FALSE(KeyedArchive::unarchiveMessage(*bytes, &error)) << qPrintable(root.toString());
        EXPECT_TRUE(error.startsWith(u"Undecodable")) << qPrintable(error);
    }
}

TEST(KeyedArchive, EncoderRefusesWhatItCannotWrite)
{
    QString error;
    EXPECT_FALSE(KeyedArchive::archivedDataWithRootObject(QVariant(QByteArray("raw")), &error));
    EXPECT_FALSE(
        KeyedArchive::archivedDataWithRootObject(QString(QStringLiteral("a") + QChar(0) + u"b"), &error));
    EXPECT_FALSE(KeyedArchive::archivedDataWithRootObject(QVariant(qulonglong(1) << 63), &error));
    QVariant deep = QStringLiteral("leaf");
    for (int i = 0; i <= KeyedArchive::kMaxDepth; ++i)
        deep = QVariantList{deep};
    EXPECT_FALSE(KeyedArchive::archivedDataWithRootObject(deep, &error));
    EXPECT_FALSE(KeyedArchive::archiveMessage(QStringLiteral("n"), QVariant(5), std::nullopt, &error));

    // The largest nesting it writes is one the decoder reads back.
    QVariant limit = QStringLiteral("leaf");
    for (int i = 0; i < KeyedArchive::kMaxDepth; ++i)
        limit = QVariantList{limit};
    const auto bytes = KeyedArchive::archivedDataWithRootObject(limit, &error);
    ASSERT_TRUE(bytes) << qPrintable(error);
    EXPECT_TRUE(KeyedArchive::unarchiveObjectWithData(*bytes, &error)) << qPrintable(error);
}
