#include "server/SelfSignedCertificate.h"

#include <QFile>
#include <QSaveFile>
#include <functional>
#include <memory>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace {

template <auto Free> struct Deleter
{
    template <typename T> void operator()(T *p) const { Free(p); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using CertPtr = std::unique_ptr<X509, Deleter<X509_free>>;
using BioPtr = std::unique_ptr<BIO, Deleter<BIO_free_all>>;
using ExtPtr = std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION_free>>;
using BnPtr = std::unique_ptr<BIGNUM, Deleter<BN_free>>;

QString opensslError(const char *what)
{
    char buffer[256] = {};
    ERR_error_string_n(ERR_get_error(), buffer, sizeof buffer);
    return QStringLiteral("%1: %2").arg(QString::fromLatin1(what), QString::fromLatin1(buffer));
}

bool addExtension(X509 *cert, int nid, const char *value)
{
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
    ExtPtr ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value));
    return ext && X509_add_ext(cert, ext.get(), -1) == 1;
}

QByteArray toPem(const std::function<int(BIO *)> &write)
{
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || write(bio.get()) != 1)
        return {};
    char *data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return QByteArray(data, int(size));
}

bool save(const QString &path, const QByteArray &data, QFile::Permissions permissions)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(data) != data.size())
        return false;
    file.setPermissions(permissions);
    return file.commit();
}

} // namespace

namespace SelfSignedCertificate {

bool generate(const QString &certFile, const QString &keyFile, QString *error)
{
    auto failed = [error](const QString &message) {
        if (error)
            *error = message;
        return false;
    };
    KeyPtr key(EVP_EC_gen("P-256"));
    if (!key)
        return failed(opensslError("key generation failed"));
    CertPtr cert(X509_new());
    if (!cert)
        return failed(opensslError("X509_new failed"));

    X509_set_version(cert.get(), 2);
    BnPtr serial(BN_new());
    if (!serial || BN_rand(serial.get(), 120, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) != 1 ||
        !BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(cert.get())))
        return failed(opensslError("serial number failed"));
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -24L * 3600);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 10L * 365 * 24 * 3600);
    X509_NAME *name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char *>("Ferrovane"),
                               -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char *>("localhost"),
                               -1, -1, 0);
    X509_set_issuer_name(cert.get(), name);
    X509_set_pubkey(cert.get(), key.get());

    const bool extensions =
        addExtension(cert.get(), NID_basic_constraints, "critical,CA:TRUE") &&
        addExtension(cert.get(), NID_key_usage, "critical,digitalSignature,keyCertSign") &&
        addExtension(cert.get(), NID_ext_key_usage, "serverAuth") &&
        addExtension(cert.get(), NID_subject_key_identifier, "hash") &&
        addExtension(cert.get(), NID_authority_key_identifier, "keyid:always") &&
        addExtension(cert.get(), NID_subject_alt_name, "IP:127.0.0.1,IP:::1,DNS:localhost");
    if (!extensions)
        return failed(opensslError("certificate extensions failed"));
    if (X509_sign(cert.get(), key.get(), EVP_sha256()) <= 0)
        return failed(opensslError("signing failed"));

    const QByteArray keyPem = toPem([&](BIO *bio) {
        return PEM_write_bio_PrivateKey(bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    });
    const QByteArray certPem = toPem([&](BIO *bio) { return PEM_write_bio_X509(bio, cert.get()); });
    if (keyPem.isEmpty() || certPem.isEmpty())
        return failed(opensslError("PEM encoding failed"));
    if (!save(keyFile, keyPem, QFile::ReadOwner | QFile::WriteOwner))
        return failed(QStringLiteral("Cannot write %1").arg(keyFile));
    if (!save(certFile, certPem, QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther))
        return failed(QStringLiteral("Cannot write %1").arg(certFile));
    return true;
}

} // namespace SelfSignedCertificate
