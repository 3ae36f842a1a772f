#pragma once
// Shared plumbing of every HTTPS request the client makes: the trust set-up, the common request
// settings, the network manager that lives on the main thread, and the helpers that hand work to
// the main thread.
//
// Threading: installTrust(), request() and runOnMainThread() may be called from any thread;
// mainManager() only on the main thread.

#include "util/FvError.h"

#include <QByteArray>
#include <QNetworkRequest>
#include <QUrl>
#include <functional>

class QNetworkAccessManager;
class QNetworkReply;

namespace NetworkAccess {

// Adds the PEM certificates named by FERROVANE_CA_FILE to the default TLS configuration, once per
// process. Certificates are always verified; this only widens the set of trusted authorities.
void installTrust();

// A request for `url` with the common settings: 60-second inactivity time-out, HTTP/1.1 only.
// Calls installTrust() first.
QNetworkRequest request(const QUrl &url);

// The manager of the asynchronous paths; lives on the main thread for the life of the process.
QNetworkAccessManager *mainManager();

// Runs `job` on the main thread and waits for it; runs it directly when already there.
void runOnMainThread(const std::function<void()> &job);
// Queues `job` on the main thread without waiting.
void postToMainThread(const std::function<void()> &job);
bool isMainThread();

// True when the exchange failed below HTTP (no answer, connection broken, time-out, TLS refusal);
// false when it succeeded or the server answered with an HTTP error status.
bool isTransportFailure(const QNetworkReply *reply);
// The reply's error as a value (domain "RestClient", the reply's error code and text).
FvError errorFromReply(const QNetworkReply *reply);

} // namespace NetworkAccess
