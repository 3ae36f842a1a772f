#include "protocol/Md5Digest.h"

#include <QCryptographicHash>
#include <openssl/evp.h>

struct Md5Digest::Context
{
    EVP_MD_CTX *ctx = EVP_MD_CTX_new();
    bool usable = false;
    // Used only when the library context cannot give MD5 (a restricted crypto policy).
    QCryptographicHash fallback{QCryptographicHash::Md5};
    ~Context() { EVP_MD_CTX_free(ctx); }
};

namespace {
// The algorithm is looked up once: looked up by each start (the implicit lookup of EVP_md5()), it
// was a sizeable share of the cost of digesting a 4 KiB file. Null when the library context has no MD5.
const EVP_MD *md5Algorithm()
{
    static EVP_MD *const algorithm = EVP_MD_fetch(nullptr, "MD5", nullptr);
    return algorithm;
}
} // namespace

Md5Digest::Md5Digest() : m_context(std::make_unique<Context>())
{
    reset();
}

Md5Digest::~Md5Digest() = default;

void Md5Digest::reset()
{
    const EVP_MD *algorithm = md5Algorithm();
    m_context->usable =
        m_context->ctx && algorithm && EVP_DigestInit_ex(m_context->ctx, algorithm, nullptr) == 1;
    m_context->fallback.reset();
}

void Md5Digest::addData(QByteArrayView bytes)
{
    if (m_context->usable)
        EVP_DigestUpdate(m_context->ctx, bytes.data(), size_t(bytes.size()));
    else
        m_context->fallback.addData(bytes);
}

QString Md5Digest::hexResult() const
{
    if (!m_context->usable)
        return QString::fromLatin1(m_context->fallback.result().toHex());
    // Finish a copy so the running state stays usable.
    EVP_MD_CTX *copy = EVP_MD_CTX_new();
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    QString hex;
    if (copy && EVP_MD_CTX_copy_ex(copy, m_context->ctx) == 1 &&
        EVP_DigestFinal_ex(copy, digest, &length) == 1)
        hex = QString::fromLatin1(QByteArray(reinterpret_cast<const char *>(digest), int(length)).toHex());
    EVP_MD_CTX_free(copy);
    return hex;
}
