#pragma once
// Makes the server's own certificate: an EC P-256 key and a self-signed X.509 v3 certificate for
// "localhost" whose subject alternative names hold IP 127.0.0.1, IP ::1 and DNS localhost. The
// certificate is its own authority (CA:TRUE), so clients can trust exactly this file.

#include <QString>

namespace SelfSignedCertificate {
// Writes PEM files (the key readable by the owner only). Returns false with `error` set on failure.
bool generate(const QString &certFile, const QString &keyFile, QString *error);
} // namespace SelfSignedCertificate
