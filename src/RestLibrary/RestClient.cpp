#include "RestLibrary/RestClient.h"

#include "RestLibrary/BlockingTransport.h"
#include "RestLibrary/FileInternetBase.h"
#include "RestLibrary/NetworkAccess.h"
#include "util/Log.h"
#include "xml/GDataXMLNode.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <exception>

void RestClientDelegate::restClientDidFinishRequestwithData(RestClient *,
                                                            const std::shared_ptr<GDataXMLDocument> &)
{}

void RestClientDelegate::restClientHasFail(RestClient *, const std::optional<QVariantMap> &) {}

namespace {

QString utf8(const QByteArray &data)
{
    return QString::fromUtf8(data);
}

} // namespace

RestClient::RestClient() = default;

RestClient::RestClient(const QString &userName, const QString &password)
    : m_userName(userName), m_password(password)
{}

RestClient::RestClient(RestClientDelegate *delegate, const QString &userName, const QString &password)
    : m_userName(userName), m_password(password), m_delegate(delegate)
{}

RestClient::~RestClient() = default;

QString RestClient::boundary()
{
    return QStringLiteral("1234567890");
}

void RestClient::setHost(const QString &host)
{
    // Only the substring is tested: a text holding "https://" anywhere is used as it is.
    if (host.contains(QLatin1String("https://")))
        m_host = host;
    else
        m_host = QStringLiteral("https://%1/").arg(host);
}

void RestClient::addParam(const QString &key, const QString &value)
{
    m_params.append(QXKeyValue(key, value));
}

void RestClient::clearParam()
{
    m_params.clear();
}

QString RestClient::buildURL(const QString &url) const
{
    return m_host + url;
}

RestRequest RestClient::buildRequest(const QString &url, const QString &method) const
{
    RestRequest req;
    req.request = NetworkAccess::request(QUrl(url));
    req.method = method.toUtf8();
    return req;
}

QString RestClient::getParamasURLForGet(bool withQuestionMark) const
{
    // Keys and values go in as they are: a value holding "&" or "=" changes the query. Kept so.
    QString query;
    for (qsizetype i = 0; i < m_params.size(); ++i) {
        const QXKeyValue &param = m_params.at(i);
        const QString lead =
            i > 0 ? QStringLiteral("&") : (withQuestionMark ? QStringLiteral("?") : QString());
        query += lead + param.key() + QLatin1Char('=') + param.value();
    }
    return query;
}

void RestClient::addHeader(const QXKeyValue &param, RestRequest &request)
{
    request.request.setRawHeader(param.key().toUtf8(), param.value().toUtf8());
}

void RestClient::addHeader(const QXKeyValue &param, QByteArray &data)
{
    // A boundary line follows every part, and the closing line repeats it: kept byte for byte.
    const QByteArray b = boundary().toUtf8();
    data += "--" + b + "\r\n";
    data += "Content-Disposition: form-data; name=\"" + param.key().toUtf8() + "\"\r\n\r\n";
    data += param.value().toUtf8();
    data += "\r\n--" + b + "\r\n";
}

QByteArray RestClient::getHeadersData() const
{
    QByteArray data;
    for (const QXKeyValue &param : m_params)
        addHeader(param, data);
    data += "\r\n--" + boundary().toUtf8() + "--\r\n";
    return data;
}

RestRequest RestClient::getRequestForPost(const QString &url) const
{
    RestRequest req = buildRequest(buildURL(url), QStringLiteral("POST"));
    for (const QXKeyValue &param : m_params)
        addHeader(param, req);
    req.request.setRawHeader("Content-Type", "multipart/form-data; boundary=" + boundary().toUtf8());
    req.body = getHeadersData();
    return req;
}

QByteArray RestClient::postNonAsyncRawWithURL(const QString &url, const QString &bodyString)
{
    FV_LOG(QStringLiteral("==== Data to sent: %1 ====").arg(bodyString));
    RestRequest req = buildRequest(buildURL(url), QStringLiteral("POST"));
    // The XML document is the whole raw body; no Content-Type is added.
    req.body = bodyString.toUtf8();
    FvError error;
    const QByteArray data = BlockingTransport::send(req, &error);
    if (!data.isEmpty() && error.isNull()) {
        FV_LOG(QStringLiteral("Result: %1").arg(QString::fromUtf8(data.constData())));
        return data;
    }
    if (error.isNull())
        error = FvError(QStringLiteral("RestClient"), 0,
                        {{QStringLiteral("NSLocalizedDescription"), QStringLiteral("empty answer")}});
    FV_LOG(QStringLiteral("error get data: %1").arg(error.toString()));
    return {};
}

std::shared_ptr<GDataXMLDocument> RestClient::parseReply(const QByteArray &data, FvError *error) const
{
    return GDataXMLDocument::initWithData(data, 0, error);
}

std::shared_ptr<GDataXMLDocument> RestClient::postNonAsyncWithURL(const QString &url,
                                                                  const QString &bodyString)
{
    const QByteArray data = postNonAsyncRawWithURL(url, bodyString);
    if (data.isEmpty())
        return nullptr;
    FV_LOG(QStringLiteral("=======Receive : %1 ======").arg(utf8(data)));
    FvError error;
    std::shared_ptr<GDataXMLDocument> document = parseReply(data, &error);
    if (!document) {
        FV_LOG(QStringLiteral("error get data: %1").arg(error.toString()));
        return nullptr;
    }
    return document;
}

void RestClient::postNonAsyncWithArrayInfo(const QStringList &info)
{
    QByteArray data;
    if (info.size() >= 2)
        data = postNonAsyncRawWithURL(info.at(0), info.at(1));
    else
        FV_LOG(QStringLiteral("Request needs a URL and a body, got %1 item(s)").arg(info.size()));
    if (data.isEmpty()) {
        if (m_delegate)
            m_delegate->restClientHasFail(this, std::nullopt);
        return;
    }
    FV_LOG(QStringLiteral("=======Receive : %1 ======").arg(utf8(data)));
    FvError error;
    std::shared_ptr<GDataXMLDocument> document = parseReply(data, &error);
    if (!document) {
        FV_LOG(QStringLiteral("error get data: %1").arg(error.toString()));
        return;
    }
    if (m_delegate)
        m_delegate->restClientDidFinishRequestwithData(this, document);
}

void RestClient::postWithURL(const QString &url, const QString &bodyString)
{
    FV_LOG(QStringLiteral("==== Data to sent: %1 ====").arg(bodyString));
    RestRequest req = buildRequest(buildURL(url), QStringLiteral("POST"));
    req.body = bodyString.toUtf8();
    sentRequest(req);
}

void RestClient::postWithURL(const QString &url)
{
    sentRequest(getRequestForPost(url));
}

void RestClient::getWithURL(const QString &url)
{
    sentRequest(buildRequest(buildURL(url) + getParamasURLForGet(true), QStringLiteral("GET")));
}

void RestClient::putWithURL(const QString &url)
{
    RestRequest req = buildRequest(buildURL(url), QStringLiteral("PUT"));
    req.request.setRawHeader("Content-Type", "application/x-www-form-urlencoded");
    req.body = getParamasURLForGet(false).toUtf8();
    sentRequest(req);
}

void RestClient::deletetWithURL(const QString &)
{
    // Part of the interface; deliberately sends nothing.
}

void RestClient::sentRequest(const RestRequest &request)
{
    FV_LOG(QStringLiteral("URL: %1").arg(request.urlString()));
    std::weak_ptr<char> alive = m_alive;
    NetworkAccess::postToMainThread([this, alive, request] {
        QNetworkReply *reply =
            NetworkAccess::mainManager()->sendCustomRequest(request.request, request.method, request.body);
        QObject::connect(reply, &QNetworkReply::finished, reply, [this, alive, reply] {
            reply->deleteLater();
            if (alive.expired())
                return;
            if (reply->error() != QNetworkReply::NoError)
                requestDidFailWithError(NetworkAccess::errorFromReply(reply));
            else
                requestDidFinishWithData(reply->readAll());
        });
    });
}

void RestClient::requestDidFinishWithData(const QByteArray &data)
{
    FV_LOG(QStringLiteral("==== Recive %1 ====").arg(utf8(data)));
    FvError error;
    std::shared_ptr<GDataXMLDocument> document = parseReply(data, &error);
    if (!document) {
        requestDidFailWithError(error);
        return;
    }
    if (m_delegate)
        m_delegate->restClientDidFinishRequestwithData(this, document);
}

void RestClient::requestDidFailWithError(const FvError &error)
{
    if (m_delegate)
        m_delegate->restClientHasFail(
            this, QVariantMap{{QStringLiteral("info_message"), QVariant::fromValue(error)}});
}

FileInternetBase *RestClient::uploadFileWithURL(const QString &url, FileInternetBaseDelegate *delegate)
{
    auto *transfer = new FileInternetBase(delegate);
    transfer->connectWithRequest(getRequestForPost(url));
    return transfer;
}

FileInternetBase *RestClient::downloadFileWithURL(const QString &url, FileInternetBaseDelegate *delegate)
{
    auto *transfer = new FileInternetBase(delegate);
    transfer->connectWithRequest(buildRequest(buildURL(url), QStringLiteral("GET")));
    return transfer;
}
