#pragma once
// A running MD5 digest (the platform's optimised implementation), finished as 32 lower-case hex
// digits. One thread at a time.

#include <QByteArrayView>
#include <QString>
#include <memory>

class Md5Digest
{
public:
    Md5Digest();
    ~Md5Digest();
    Md5Digest(const Md5Digest &) = delete;
    Md5Digest &operator=(const Md5Digest &) = delete;

    void reset();
    void addData(QByteArrayView bytes);
    // The digest of everything added since the last reset; the digest itself is left as it is.
    QString hexResult() const;

private:
    struct Context;
    std::unique_ptr<Context> m_context;
};
