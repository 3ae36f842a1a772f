#pragma once
// Synchronous sends. The caller blocks without turning its own event loop, so queued calls meant
// for the caller's thread (a task run, a work-list pass) cannot start in the middle of the caller's
// current work. A worker thread makes the exchange itself (DirectHttp); the main thread's goes
// through a private network thread.
//
// Thread-safe; any thread may call send(), including the main thread. The network thread is
// started on first use and stopped when the application object is destroyed.

#include "RestLibrary/RestRequest.h"
#include "util/FvError.h"

#include <QByteArray>

namespace BlockingTransport {
// Sends `request` and waits for the whole answer. Any error (transport or an HTTP error status)
// gives an empty result and fills `error`.
QByteArray send(const RestRequest &request, FvError *error);
} // namespace BlockingTransport
