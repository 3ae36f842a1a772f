// Feeds arbitrary bytes to both frame readers. The stream handler reads the whole input in one
// wake-up; the frame buffer gets it in pieces whose sizes come from the input itself. Both must
// give the same bodies, and each body framed again must read back as itself.
#include "link/MessageFraming.h"

#include <QBuffer>
#include <cstdint>
#include <cstdlib>

namespace {

// The devices live for the whole run and are pointed at each input in turn: a QBuffer is a
// QObject, and making two per input cost more than reading a short one.
QBuffer &readerOver(QBuffer &device, const QByteArray &bytes)
{
    device.close();
    device.setData(bytes);
    device.open(QIODevice::ReadOnly);
    return device;
}

QBuffer g_input;
QBuffer g_again;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // Views of the input, not copies: the readers copy what they keep.
    const QByteArray bytes = QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size));
    const QList<QByteArray> whole = MessageFraming::readMessages(readerOver(g_input, bytes));

    MessageFraming::FrameBuffer buffer;
    QList<QByteArray> pieces;
    uint32_t seed = size ? data[0] : 1;
    for (qsizetype pos = 0; pos < bytes.size();) {
        seed = seed * 1103515245u + 12345u;
        const qsizetype n = 1 + qsizetype((seed >> 8) % 1500);
        pieces +=
            buffer.append(QByteArray::fromRawData(bytes.constData() + pos, qMin(n, bytes.size() - pos)));
        pos += n;
    }
    pieces += buffer.finish();
    if (pieces != whole || buffer.pending() != 0)
        std::abort();

    for (const QByteArray &body : whole) {
        const auto framed = MessageFraming::frame(body);
        if (!framed)
            std::abort();
        if (MessageFraming::readMessages(readerOver(g_again, *framed)) != QList<QByteArray>{body})
            std::abort();
    }
    return 0;
}
