#pragma once
// What the catalogue's command senders stand on: one synchronous POST of a command body.
//
// The default (RestClientTransport) sends through RestClient on the calling thread. Another
// transport can be installed on DatabaseUtils, e.g. one that answers commands locally.
// Threading: post() is called on the thread that sends the command (a worker, usually) and blocks it.

#include <QByteArray>
#include <QString>

class CommandTransport
{
public:
    virtual ~CommandTransport() = default;
    // Posts `body` (UTF-8) to the full `url`; the raw reply, empty when nothing came back.
    virtual QByteArray post(const QString &url, const QString &body) = 0;
};

class RestClientTransport final : public CommandTransport
{
public:
    QByteArray post(const QString &url, const QString &body) override;
};
