#include "protocol/BackgroundDigest.h"

#include "protocol/Md5Digest.h"

BackgroundDigest::BackgroundDigest(qsizetype bufferSize, qsizetype inlineBytes)
    : m_bufferSize(bufferSize), m_inlineLeft(inlineBytes), m_digest(std::make_unique<Md5Digest>())
{
    m_buffers.reserve(kBuffers);
}

BackgroundDigest::~BackgroundDigest()
{
    if (!m_thread.joinable())
        return;
    {
        std::lock_guard lock(m_mutex);
        m_stop = true;
    }
    m_changed.notify_all();
    m_thread.join();
}

QByteArray &BackgroundDigest::nextBuffer(qsizetype wanted)
{
    constexpr qsizetype kSmallest = 4096;
    const qsizetype size =
        wanted < 0 ? m_bufferSize : qBound(qMin(kSmallest, m_bufferSize), wanted, m_bufferSize);
    std::unique_lock lock(m_mutex);
    if (m_current < 0) {
        if (m_free.empty() && m_buffers.size() < (m_thread.joinable() ? std::size_t(kBuffers) : 1)) {
            m_buffers.emplace_back(size, Qt::Uninitialized);
            m_free.push_back(int(m_buffers.size()) - 1);
        }
        m_changed.wait(lock, [this] { return !m_free.empty(); });
        m_current = m_free.back();
        m_free.pop_back();
        // A buffer made for a small piece grows when a larger one comes (it is free here).
        QByteArray &buffer = m_buffers[std::size_t(m_current)];
        if (buffer.size() < size)
            buffer.resize(size);
    }
    return m_buffers[std::size_t(m_current)];
}

void BackgroundDigest::submit(qsizetype size)
{
    {
        std::lock_guard lock(m_mutex);
        if (m_current < 0)
            return;
        if (!m_thread.joinable()) {
            if (size <= m_inlineLeft) {
                // Nothing else hashes yet: this thread adds it, and the buffer is free again.
                m_inlineLeft -= size;
                m_digest->addData(QByteArrayView(m_buffers[std::size_t(m_current)].constData(), size));
                m_free.push_back(m_current);
                m_current = -1;
                return;
            }
            m_thread = std::thread([this] { run(); });
        }
        m_queue.emplace_back(m_current, size);
        m_current = -1;
    }
    m_changed.notify_all();
}

void BackgroundDigest::waitIdle(std::unique_lock<std::mutex> &lock)
{
    m_changed.wait(lock, [this] { return m_queue.empty() && !m_hashing; });
}

void BackgroundDigest::reset()
{
    std::unique_lock lock(m_mutex);
    waitIdle(lock);
    m_digest->reset();
}

QString BackgroundDigest::hexResult()
{
    std::unique_lock lock(m_mutex);
    waitIdle(lock);
    return m_digest->hexResult();
}

void BackgroundDigest::run()
{
    std::unique_lock lock(m_mutex);
    for (;;) {
        m_changed.wait(lock, [this] { return m_stop || !m_queue.empty(); });
        if (m_stop)
            return;
        const auto [index, size] = m_queue.front();
        m_queue.pop_front();
        m_hashing = true;
        lock.unlock();
        m_digest->addData(QByteArrayView(m_buffers[std::size_t(index)].constData(), size));
        lock.lock();
        m_hashing = false;
        m_free.push_back(index);
        m_changed.notify_all();
    }
}
