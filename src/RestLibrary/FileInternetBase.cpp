#include "RestLibrary/FileInternetBase.h"

#include "RestLibrary/NetworkAccess.h"
#include "util/Log.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>

void FileInternetBaseDelegate::fileInternetBaseDidConnectedWithDataLength(FileInternetBase *, qint64) {}
void FileInternetBaseDelegate::fileInternetBaseDidSusscelWithData(FileInternetBase *, const QByteArray &) {}
void FileInternetBaseDelegate::fileInternetBaseDidWorkPercent(FileInternetBase *, float) {}
void FileInternetBaseDelegate::fileInternetBaseDidFailWithCode(FileInternetBase *, int) {}

FileInternetBase::FileInternetBase(FileInternetBaseDelegate *delegate) : m_delegate(delegate) {}

FileInternetBase::~FileInternetBase()
{
    if (m_connection) {
        m_connection->disconnect(this);
        m_connection->abort();
    }
}

void FileInternetBase::connectWithRequest(const RestRequest &request)
{
    m_request = request;
    m_url = request.urlString();
    FV_LOG(QStringLiteral("Connect URL: %1").arg(m_url));
    if (!request.request.url().isValid()) {
        sentErrorWithCode(2);
        finishAndRelease();
        return;
    }
    m_manager = new QNetworkAccessManager(this);
    QNetworkReply *reply = m_manager->sendCustomRequest(request.request, request.method, request.body);
    m_connection = reply;
    connect(reply, &QNetworkReply::metaDataChanged, this, &FileInternetBase::didReceiveResponse);
    connect(reply, &QNetworkReply::readyRead, this, &FileInternetBase::didReceiveData);
    connect(reply, &QNetworkReply::uploadProgress, this, &FileInternetBase::didSendBodyData);
    connect(reply, &QNetworkReply::finished, this, &FileInternetBase::didFinish);
}

void FileInternetBase::cancel()
{
    if (m_done)
        return;
    m_delegate = nullptr;
    finishAndRelease();
}

void FileInternetBase::sentErrorWithCode(int code)
{
    if (m_delegate)
        m_delegate->fileInternetBaseDidFailWithCode(this, code);
}

void FileInternetBase::didReceiveResponse()
{
    if (m_hasBuffer || !m_connection)
        return;
    m_dataLength = m_connection->header(QNetworkRequest::ContentLengthHeader).toLongLong(nullptr);
    if (!m_connection->header(QNetworkRequest::ContentLengthHeader).isValid())
        m_dataLength = -1; // unknown length: the percentages mean nothing, as they always did
    FV_LOG(QStringLiteral("Response url: %1\t length: %2").arg(m_url).arg(m_dataLength));
    m_receiveData = QByteArray();
    m_hasBuffer = true;
    if (m_delegate)
        m_delegate->fileInternetBaseDidConnectedWithDataLength(this, m_dataLength);
}

void FileInternetBase::didReceiveData()
{
    if (!m_connection)
        return;
    if (!m_hasBuffer)
        didReceiveResponse();
    m_receiveData += m_connection->readAll();
    if (m_delegate)
        m_delegate->fileInternetBaseDidWorkPercent(this, float(m_receiveData.size()) / float(m_dataLength) *
                                                             100.0f);
}

void FileInternetBase::didSendBodyData(qint64 written, qint64 expected)
{
    m_sentData = written;
    if (m_delegate && expected > 0)
        m_delegate->fileInternetBaseDidWorkPercent(this, float(written) / float(expected));
}

void FileInternetBase::didFinish()
{
    if (m_done || !m_connection)
        return;
    if (m_connection->bytesAvailable() > 0)
        didReceiveData();
    if (NetworkAccess::isTransportFailure(m_connection)) {
        FV_LOG(QStringLiteral("Error: %1").arg(NetworkAccess::errorFromReply(m_connection).toString()));
        sentErrorWithCode(m_hasBuffer ? 1 : 2);
    } else if (m_hasBuffer) {
        if (m_delegate)
            m_delegate->fileInternetBaseDidSusscelWithData(this, m_receiveData);
    } else {
        sentErrorWithCode(2);
    }
    finishAndRelease();
}

void FileInternetBase::finishAndRelease()
{
    m_done = true;
    if (m_connection) {
        m_connection->disconnect(this);
        m_connection->abort();
        m_connection->deleteLater();
    }
    deleteLater();
}
