#pragma once
// HTTP/1.1 exchanges made on the calling thread, over a connection it keeps open for its next
// request. A worker that sends one command or fetches one file after another then costs no thread
// hand-over at all: the network manager's way takes two to four switches between threads per
// request, which on small files and short commands cost more than the exchange itself.
//
// Used by worker threads only (see usable()); the main thread keeps the network manager, whose
// event-driven replies it can wait for without blocking its own events.
//
// Same settings as every other request (NetworkAccess::request): the default TLS configuration with
// the extra authorities, certificates always verified, 60 seconds without a byte ends the exchange.
// A kept connection the server has closed in the meantime is found out before reuse; one that
// breaks before the first byte of the answer is replaced and the request sent again, once.
//
// Threading: each thread has its own kept connection, dropped when the thread ends.

#include "RestLibrary/RestRequest.h"
#include "util/FvError.h"

#include <QByteArray>
#include <QList>
#include <QPair>

namespace DirectHttp {

struct Answer;

// Where an answer's body goes, piece by piece. The default one collects it in `body`.
class BodyReceiver
{
public:
    virtual ~BodyReceiver() = default;
    // A buffer to read the next piece into, and its capacity. On entry *capacity holds the bytes
    // the piece may have at most (what is left of the body or its chunk, or what has come).
    virtual char *buffer(qint64 *capacity);
    // The first `size` bytes of that buffer hold the next piece; false stops the exchange (the
    // connection is dropped, the answer counts as failed).
    virtual bool take(qint64 size);
    // Called once the head is read: true when the head says all that matters, so the body is
    // only read if it comes at once, and the answer stands without it.
    virtual bool bodyOptional(const Answer &) { return false; }

    QByteArray body;

private:
    QByteArray m_piece;
};

// Where a long request body comes from, piece by piece (a file being uploaded).
class BodySource
{
public:
    virtual ~BodySource() = default;
    virtual qint64 size() const = 0;
    // Up to `capacity` next bytes; 0 or less fails the exchange.
    virtual qint64 read(char *to, qint64 capacity) = 0;
    // Back to the first byte, for a request sent again; false fails the exchange.
    virtual bool rewind() = 0;
    // Checked between pieces: true ends the exchange (the connection is dropped).
    virtual bool cancelled() const { return false; }
};

struct Answer
{
    int status = 0; // 0 when no complete answer came
    QList<QPair<QByteArray, QByteArray>> headers;
    // Set for a transport failure (no or a cut answer, time-out, TLS refusal) and for an HTTP
    // status of 400 and above; codes as the network manager's (QNetworkReply::NetworkError).
    FvError error;
    bool transportFailure = false;
};

// Whether the calling thread may use exchange(): a thread other than the main one, while the
// application object exists.
bool usable();

// Sends `request` (its body, or the one `source` gives) and reads the whole answer into `receiver`.
Answer exchange(const RestRequest &request, BodyReceiver &receiver, BodySource *source = nullptr);

// Header `name` of `headers` (case-insensitive), empty when absent.
QByteArray headerValue(const QList<QPair<QByteArray, QByteArray>> &headers, const char *name);
// "Name: value, Name: value" for the log.
QString headerLine(const QList<QPair<QByteArray, QByteArray>> &headers);

} // namespace DirectHttp
