#pragma once
// The program's one diagnostic line: "[CLASS: <file>]<function>[LINE: <n>]<message>".
// Lines go to syslog(3); with setVerbose(true) (the --verbose flag) they are mirrored to stderr.
// Thread-safe: any thread may log.

#include <QString>

namespace Log {
// Writes one diagnostic line. `file` is __FILE__ (folders and extension are stripped),
// `function` the full function name.
void write(const char *file, const char *function, int line, const QString &message);
// The formatted line without writing it (used by write and by tests).
QString format(const char *file, const char *function, int line, const QString &message);
void setVerbose(bool verbose);
bool isVerbose();
// Optional extra sink for tests: receives every formatted line. Pass nullptr to remove.
using Sink = void (*)(const QString &line);
void setSink(Sink sink);
} // namespace Log

// FV_LOG(message): message is a QString expression, e.g. FV_LOG(u"Result: %1"_qs.arg(x)).
#define FV_LOG(message) ::Log::write(__FILE__, __PRETTY_FUNCTION__, __LINE__, (message))
