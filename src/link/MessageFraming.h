#pragma once
// Framing of the daemon's messages on the loopback connection: a 5-byte ASCII decimal length
// header, zero-padded ("00042"), then that many bytes of body (a keyed archive).
//
// Two readers share the header rule (leading blanks, an optional sign and digits, as a C-style
// integer parse; anything that is not a positive number is an empty body, which is skipped):
//
// - readMessages(): the client's stream handler as it has always worked. While the device has
//   bytes available it reads up to 5 header bytes, then the body in reads of min(1024, missing)
//   until the body is complete or a read returns nothing; a short body is kept as it stands.
//   It assumes every wake-up sees whole frames. The daemon writes each frame in one write, but
//   TCP may still deliver a frame in two segments (bodies can exceed a loopback segment, and the
//   reader can wake between two writes); then the header or body is cut, the cut body is handed
//   on truncated and the rest of the frame is misread as a new header.
//
// - FrameBuffer: keeps partial frames between reads and hands on only whole frames, so a frame
//   split anywhere gives the same bodies as the frame read in one piece. finish() at end of
//   stream releases a trailing partial frame exactly as readMessages() would have read it.
//   This is the reader to use for a live socket.
//
// For input that arrives all at once both readers give the same bodies.
// Stateless functions are thread-safe; a FrameBuffer belongs to one thread.

#include <QByteArray>
#include <QByteArrayView>
#include <QList>
#include <optional>

class QIODevice;
class QString;

namespace MessageFraming {

inline constexpr int kHeaderLength = 5;
inline constexpr int kChunkSize = 1024;
inline constexpr int kMaxBodyLength = 99999;

// Header + body. Bodies longer than kMaxBodyLength cannot be framed: std::nullopt and a
// diagnostic (in `error` when given, else the log).
std::optional<QByteArray> frame(const QByteArray &body, QString *error = nullptr);

// The body length a header announces (<= 0 means an empty body).
int headerValue(QByteArrayView header);

// Reads every message the device has available now and returns the non-empty bodies.
QList<QByteArray> readMessages(QIODevice &device);

class FrameBuffer
{
public:
    // Appends received bytes and returns the bodies of the frames now complete (empty ones skipped).
    QList<QByteArray> append(const QByteArray &bytes);
    // Reads everything the device has available now and appends it.
    QList<QByteArray> readFrom(QIODevice &device);
    // End of stream: returns a trailing partial body (if non-empty) and clears the buffer.
    QList<QByteArray> finish();
    // Bytes held while waiting for the rest of a frame.
    qsizetype pending() const { return m_buffer.size(); }

private:
    QByteArray m_buffer;
};

} // namespace MessageFraming
