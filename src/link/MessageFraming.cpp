#include "link/MessageFraming.h"

#include "util/Log.h"

#include <QIODevice>
#include <QString>

namespace MessageFraming {

std::optional<QByteArray> frame(const QByteArray &body, QString *error)
{
    if (body.size() > kMaxBodyLength) {
        const QString reason = QStringLiteral("Message of %1 bytes is too long to frame (at most %2)")
                                   .arg(body.size())
                                   .arg(kMaxBodyLength);
        if (error)
            *error = reason;
        else
            FV_LOG(reason);
        return std::nullopt;
    }
    QByteArray framed = QByteArray::number(body.size()).rightJustified(kHeaderLength, '0');
    framed.append(body);
    return framed;
}

int headerValue(QByteArrayView header)
{
    // Parsed like a C integer conversion: leading blanks, an optional sign, then digits up to the
    // first other character. No digits means 0.
    qsizetype i = 0;
    const qsizetype n = header.size();
    while (i < n && (header[i] == ' ' || header[i] == '\t' || header[i] == '\n' || header[i] == '\r' ||
                     header[i] == '\v' || header[i] == '\f'))
        ++i;
    bool negative = false;
    if (i < n && (header[i] == '+' || header[i] == '-')) {
        negative = header[i] == '-';
        ++i;
    }
    int value = 0;
    // A header is at most 5 bytes, but cap anyway so a longer argument cannot overflow.
    for (int digits = 0; i < n && header[i] >= '0' && header[i] <= '9' && digits < 9; ++i, ++digits)
        value = value * 10 + (header[i] - '0');
    return negative ? -value : value;
}

QList<QByteArray> readMessages(QIODevice &device)
{
    QList<QByteArray> bodies;
    while (device.bytesAvailable() > 0) {
        char header[kHeaderLength];
        const qint64 headerBytes = device.read(header, kHeaderLength);
        // Bytes announced but none delivered means the device is failing; looping would spin.
        if (headerBytes <= 0)
            break;
        const int length = headerValue(QByteArrayView(header, headerBytes));
        // The chunks are read straight into the body rather than each into an array of its own.
        QByteArray body;
        while (body.size() < length) {
            const qsizetype have = body.size();
            const qsizetype want = qMin<qsizetype>(kChunkSize, length - have);
            body.resize(have + want);
            const qint64 got = device.read(body.data() + have, want);
            body.resize(have + qMax<qint64>(got, 0));
            if (got <= 0)
                break;
        }
        if (!body.isEmpty())
            bodies.append(body);
    }
    return bodies;
}

QList<QByteArray> FrameBuffer::append(const QByteArray &bytes)
{
    m_buffer.append(bytes);
    QList<QByteArray> bodies;
    qsizetype pos = 0;
    while (m_buffer.size() - pos >= kHeaderLength) {
        const int length = headerValue(QByteArrayView(m_buffer).sliced(pos, kHeaderLength));
        if (length <= 0) {
            pos += kHeaderLength;
            continue;
        }
        if (m_buffer.size() - pos - kHeaderLength < length)
            break;
        bodies.append(m_buffer.mid(pos + kHeaderLength, length));
        pos += kHeaderLength + length;
    }
    m_buffer.remove(0, pos);
    return bodies;
}

QList<QByteArray> FrameBuffer::readFrom(QIODevice &device)
{
    return append(device.readAll());
}

QList<QByteArray> FrameBuffer::finish()
{
    QList<QByteArray> bodies;
    // What is left is a cut header (its body would be empty) or a header and a cut body, which
    // is handed on as it stands like the stream handler does.
    if (m_buffer.size() > kHeaderLength && headerValue(QByteArrayView(m_buffer).first(kHeaderLength)) > 0)
        bodies.append(m_buffer.mid(kHeaderLength));
    m_buffer.clear();
    return bodies;
}

} // namespace MessageFraming
