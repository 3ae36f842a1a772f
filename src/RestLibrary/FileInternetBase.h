#pragma once
// A small connection object: sends one built request, gathers the whole answer in memory and
// reports progress to its delegate. Meant for small payloads (thumbnails, single small files).
//
// Threading and ownership: the request runs on the event loop of the thread that calls
// connectWithRequest (that thread must run one); the delegate is called there. The object deletes
// itself (deleteLater) after its last callback; keep a QPointer to it, not ownership.

#include "RestLibrary/RestRequest.h"

#include <QByteArray>
#include <QObject>
#include <QPointer>
#include <QString>

class FileInternetBase;
class QNetworkAccessManager;
class QNetworkReply;

// All callbacks are optional: the defaults do nothing.
class FileInternetBaseDelegate
{
public:
    virtual ~FileInternetBaseDelegate() = default;
    virtual void fileInternetBaseDidConnectedWithDataLength(FileInternetBase *base, qint64 length);
    virtual void fileInternetBaseDidSusscelWithData(FileInternetBase *base, const QByteArray &data);
    // 0 to 100 while an answer arrives; 0 to 1 while a body is sent. Kept so.
    virtual void fileInternetBaseDidWorkPercent(FileInternetBase *base, float percent);
    // 1: the connection broke during the answer; 2: nothing had arrived.
    virtual void fileInternetBaseDidFailWithCode(FileInternetBase *base, int code);
};

class FileInternetBase final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(FileInternetBase)
public:
    explicit FileInternetBase(FileInternetBaseDelegate *delegate); // initWithDelegate:
    ~FileInternetBase() override;

    FileInternetBaseDelegate *delegate() const { return m_delegate; }
    void setDelegate(FileInternetBaseDelegate *delegate) { m_delegate = delegate; }
    const RestRequest &request() const { return m_request; }
    const QByteArray &receiveData() const { return m_receiveData; }
    qint64 dataLength() const { return m_dataLength; }
    const QString &url() const { return m_url; }
    qint64 sentData() const { return m_sentData; }

    void connectWithRequest(const RestRequest &request);
    // Stops the request without further callbacks and deletes the object later.
    void cancel();
    void sentErrorWithCode(int code);

private:
    void didReceiveResponse();
    void didReceiveData();
    void didSendBodyData(qint64 written, qint64 expected);
    void didFinish();
    void finishAndRelease();

    FileInternetBaseDelegate *m_delegate = nullptr;
    RestRequest m_request;
    QNetworkAccessManager *m_manager = nullptr; // child
    QPointer<QNetworkReply> m_connection;
    QByteArray m_receiveData;
    bool m_hasBuffer = false;
    qint64 m_dataLength = 0;
    QString m_url;
    qint64 m_sentData = 0;
    bool m_done = false;
};
