#pragma once
// A built HTTP request that has not been sent: the network request (URL and header fields), the
// method and the body. RestClient builds these; the transfer objects send them.

#include <QByteArray>
#include <QNetworkRequest>

struct RestRequest
{
    QNetworkRequest request;
    QByteArray method; // "GET", "POST" or "PUT"
    QByteArray body;

    QString urlString() const { return request.url().toString(QUrl::FullyEncoded); }
};
