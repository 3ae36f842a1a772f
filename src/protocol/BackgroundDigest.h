#pragma once
// The MD5 of a byte stream, computed on a thread of its own, so that the thread that receives and
// writes the bytes does not hash them too: a download then spreads over three threads (decryption,
// writing, hashing), as a pipeline of separate programs would.
//
// The pieces go through a few buffers of a fixed size that are reused (constant memory): the
// producer fills the buffer nextBuffer() gives and hands it over with submit(); nextBuffer() waits
// while every buffer is still being hashed. Pieces are hashed in the order they were submitted.
//
// Most files are small: the first `inlineBytes` are hashed on the producer's thread, in the one
// buffer they need, and the hashing thread (and further buffers) only start with the piece that
// goes beyond. A thread and a megabyte of buffers per small file cost more than its digest.
//
// Threading: one producer thread calls every method; the hashing thread is owned and ends with
// the object.

#include <QByteArray>
#include <QString>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

class Md5Digest;

class BackgroundDigest
{
public:
    static constexpr qsizetype kInlineBytes = 1024 * 1024;
    explicit BackgroundDigest(qsizetype bufferSize, qsizetype inlineBytes = kInlineBytes);
    ~BackgroundDigest();
    BackgroundDigest(const BackgroundDigest &) = delete;
    BackgroundDigest &operator=(const BackgroundDigest &) = delete;

    // The buffer to fill with the next piece; the same one until submitted. It holds bufferSize
    // bytes, or `wanted` (at least 4 KiB) when fewer are expected: a small file then costs a small
    // allocation, not a quarter of a megabyte that the allocator gives back and asks for again.
    QByteArray &nextBuffer(qsizetype wanted = -1);
    // Hands the first `size` bytes of that buffer to the digest.
    void submit(qsizetype size);
    // Waits for the pieces submitted so far and starts the digest over.
    void reset();
    // 32 lower-case hex digits of everything submitted since the last reset (waits for it).
    QString hexResult();

private:
    static constexpr int kBuffers = 4;
    void run();
    void waitIdle(std::unique_lock<std::mutex> &lock);

    const qsizetype m_bufferSize;
    qsizetype m_inlineLeft;              // bytes still hashed here before the thread takes over
    std::vector<QByteArray> m_buffers;   // made as needed, up to kBuffers (reserved: never moved)
    std::unique_ptr<Md5Digest> m_digest; // used by the hashing thread, and here while it is idle
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<std::pair<int, qsizetype>> m_queue; // buffer index, size
    std::vector<int> m_free;
    int m_current = -1; // the buffer the producer holds
    bool m_hashing = false;
    bool m_stop = false;
    std::thread m_thread;
};
