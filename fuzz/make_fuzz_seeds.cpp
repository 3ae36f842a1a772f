// Writes a small seed corpus for the fuzz targets from the real encoder and framer:
//   make_fuzz_seeds <corpus dir>   (creates <dir>/keyed_archive and <dir>/message_framing)
#include "link/KeyedArchive.h"
#include "link/MessageFraming.h"

#include <QDir>
#include <QFile>
#include <QStringList>
#include <cstdio>

namespace {

bool write(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_fuzz_seeds <corpus dir>\n");
        return 64;
    }
    const QDir root(QString::fromLocal8Bit(argv[1]));
    root.mkpath(QStringLiteral("keyed_archive"));
    root.mkpath(QStringLiteral("message_framing"));

    const QString folder = QStringLiteral("/home/user/CloudFolder");
    const QVariantMap nested{{QStringLiteral("list"), QVariantList{1, 2.5, true, QVariant()}},
                             {QStringLiteral("name"), QStringLiteral("文件")}};
    const QList<std::optional<QByteArray>> archives = {
        KeyedArchive::archiveMessage(QStringLiteral("kKeyMyFSListenerCreateFile"),
                                     QString(folder + u"/a.txt")),
        KeyedArchive::archiveMessage(QStringLiteral("kKeyMyFSListenerUpdateFile"), QVariant()),
        KeyedArchive::archiveMessage(
            QStringLiteral("kKeyMyFSListenerRenameFile"), QVariant(),
            QVariantMap{{QStringLiteral("object"), QStringList{folder + u"/a.txt", folder + u"/b.txt"}}}),
        KeyedArchive::archiveMessage(QStringLiteral("kKeyMyFSListenerDeleteDir"), QString(folder + u"/d"),
                                     QVariantMap{{QStringLiteral("object"), QStringList{folder + u"/d"}},
                                                 {QStringLiteral("nested"), nested},
                                                 {QStringLiteral("count"), -7}}),
        KeyedArchive::archivedDataWithRootObject(QVariant()),
    };
    QByteArray stream;
    int n = 0;
    for (const auto &archive : archives) {
        if (!archive)
            return 1;
        if (!write(root.filePath(QStringLiteral("keyed_archive/seed%1").arg(++n)), *archive))
            return 1;
        stream += MessageFraming::frame(*archive).value_or(QByteArray());
    }
    const QList<QByteArray> framing = {
        stream,
        MessageFraming::frame(QByteArray(2500, 'x')).value_or(QByteArray()) + "00000" + "live" + "-0003",
        stream.left(stream.size() / 2),
    };
    n = 0;
    for (const QByteArray &bytes : framing) {
        if (!write(root.filePath(QStringLiteral("message_framing/seed%1").arg(++n)), bytes))
            return 1;
    }
    return 0;
}
