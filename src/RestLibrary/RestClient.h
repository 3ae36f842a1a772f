#pragma once
// The XML command transport: builds the requests of one server (host + relative path), sends them
// and parses the answers into XML documents.
//
// Sending paths:
//  - postNonAsyncRawWithURL / postNonAsyncWithURL block the calling thread for the round trip (a
//    manager and an event loop of their own on that thread). Never call them on the main thread
//    from the user interface.
//  - postNonAsyncWithArrayInfo is meant for a background thread; the delegate is called on it.
//  - postWithURL / getWithURL / putWithURL return at once; the request runs on the main thread's
//    manager and the delegate is called on the main thread.
// A client holds no lock: one caller uses one client at a time. The delegate is not owned. A reply
// that arrives after the client is gone is dropped.

#include "RestLibrary/QXKeyValue.h"
#include "RestLibrary/RestRequest.h"
#include "util/FvError.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>
#include <QVariantMap>
#include <memory>
#include <optional>

class GDataXMLDocument;
class FileInternetBase;
class FileInternetBaseDelegate;
class RestClient;

// Both callbacks are optional: the defaults do nothing.
class RestClientDelegate
{
public:
    virtual ~RestClientDelegate() = default;
    virtual void restClientDidFinishRequestwithData(RestClient *client,
                                                    const std::shared_ptr<GDataXMLDocument> &document);
    // `info` is empty when no data came back at all; otherwise its "info_message" holds the FvError.
    virtual void restClientHasFail(RestClient *client, const std::optional<QVariantMap> &info);
};

class RestClient final
{
public:
    RestClient();
    RestClient(const QString &userName, const QString &password);
    RestClient(RestClientDelegate *delegate, const QString &userName, const QString &password);
    ~RestClient();
    Q_DISABLE_COPY_MOVE(RestClient)

    // The multipart boundary shared by all clients.
    static QString boundary();

    const QString &userName() const { return m_userName; }
    void setUserName(const QString &userName) { m_userName = userName; }
    const QString &password() const { return m_password; }
    void setPassword(const QString &password) { m_password = password; }
    const QString &host() const { return m_host; }
    // Kept as given when it contains "https://" anywhere, else "https://<text>/".
    void setHost(const QString &host);
    const QList<QXKeyValue> &params() const { return m_params; }
    void addParam(const QString &key, const QString &value);
    void clearParam();
    const QList<QXKeyValue> &headers() const { return m_headers; }
    RestClientDelegate *delegate() const { return m_delegate; }
    void setDelegate(RestClientDelegate *delegate) { m_delegate = delegate; }
    bool isSentToken() const { return m_isSentToken; }
    void setIsSentToken(bool sent) { m_isSentToken = sent; }

    // Building.
    QString buildURL(const QString &url) const;
    RestRequest buildRequest(const QString &url, const QString &method) const;
    // The parameters as a query, without percent-encoding; "?" before the first pair when asked.
    QString getParamasURLForGet(bool withQuestionMark) const;
    RestRequest getRequestForPost(const QString &url) const;
    QByteArray getHeadersData() const;
    static void addHeader(const QXKeyValue &param, RestRequest &request); // addHeader:toHeaderRequest:
    static void addHeader(const QXKeyValue &param, QByteArray &data);     // addHeader:toHeaderData:

    // Synchronous. Empty result / nullptr when nothing usable came back.
    QByteArray postNonAsyncRawWithURL(const QString &url, const QString &bodyString);
    std::shared_ptr<GDataXMLDocument> postNonAsyncWithURL(const QString &url, const QString &bodyString);
    // info = (relative URL, body). Reports to the delegate on the calling thread.
    void postNonAsyncWithArrayInfo(const QStringList &info);

    // Asynchronous; results reach the delegate on the main thread.
    void postWithURL(const QString &url, const QString &bodyString);
    void postWithURL(const QString &url); // multipart form of the parameters
    void getWithURL(const QString &url);
    void putWithURL(const QString &url);
    void deletetWithURL(const QString &url); // sends nothing
    void sentRequest(const RestRequest &request);
    void requestDidFinishWithData(const QByteArray &data);
    void requestDidFailWithError(const FvError &error);

    // Transfers through a new FileInternetBase, which reports to `delegate` on the calling
    // thread's event loop and deletes itself after its last callback.
    FileInternetBase *uploadFileWithURL(const QString &url, FileInternetBaseDelegate *delegate);
    FileInternetBase *downloadFileWithURL(const QString &url, FileInternetBaseDelegate *delegate);

private:
    std::shared_ptr<GDataXMLDocument> parseReply(const QByteArray &data, FvError *error) const;

    QString m_userName;
    QString m_password;
    QString m_host;
    QList<QXKeyValue> m_params;
    QList<QXKeyValue> m_headers;
    RestClientDelegate *m_delegate = nullptr;
    bool m_isSentToken = false;
    // Expires with the client; asynchronous completions check it before touching the client.
    std::shared_ptr<char> m_alive = std::make_shared<char>();
};
