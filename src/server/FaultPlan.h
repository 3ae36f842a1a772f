#pragma once
// Faults to inject into the server's next replies, for tests of the client's failure handling.
// Each fault names a command (LOGIN ... INFO, UPLOAD, DOWNLOAD, UPDATE, PACKAGE, or "*" for any)
// and how many of its next requests it hits, after letting `skip` of them through untouched (so a
// test can fail exactly the Nth request); the first matching fault in insertion order is taken.
// Thread-safe.

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QString>
#include <optional>

struct Fault
{
    enum class Kind {
        // Close the connection without a byte of answer; the request is not carried out. A client on
        // QNetworkAccessManager re-sends such a request up to three times on its own (each re-send
        // is another request here and takes another count).
        Drop,
        // Not carried out; the answer breaks off after its head, so clients do not re-send.
        CutReply,
        // Carried out; the answer breaks off after its head (a reply lost on the way).
        DropAfterProcessing,
        // Carried out; the connection closes before a byte of answer, so a client on
        // QNetworkAccessManager sends the same request again on its own (and it is carried out again).
        DropAfterProcessingSilently,
        HttpStatus,   // answer with `status` and a short text body
        Body,         // answer 200 with `body` as it is (a non-XML reply such as "-3" or "-2")
        Delay,        // wait `delayMs` (real time) before handling the request normally
        RefuseUpload, // UPLOAD: read and discard the body, answer "Velmora-result" = `result`
        CutDownload,  // DOWNLOAD: announce the full length, send `bytes` bytes, close
    };
    Kind kind = Kind::Drop;
    QString command;
    int count = 1;
    int skip = 0; // matching requests let through before the first one hit
    int status = 500;
    QByteArray body;
    int delayMs = 0;
    QString result = QStringLiteral("1");
    qint64 bytes = 0;

    static std::optional<Kind> kindFromName(const QString &name);
};

class FaultPlan
{
public:
    void add(const Fault &fault);
    // Takes one use of the first fault that applies to `command`.
    std::optional<Fault> take(const QString &command);
    void clear();
    int pending() const;

private:
    mutable QMutex m_mutex;
    QList<Fault> m_faults;
};
