#pragma once
// The live part of one upload, on the main thread: the input stream and a streamed HTTPS POST
// written straight to a TLS socket. The body goes out in large pieces as the socket drains, so a
// file of any size costs a bounded amount of memory and little more than the encryption itself.
// The server's verdict ("Velmora-result") is taken as soon as the answer's headers are complete.
//
// Same request as the network manager would send: POST to the caller's URL, Content-Type
// "application/stream", "velmora_filetime", Content-Length of the file, HTTP/1.1, certificates
// verified against the default trust (FERROVANE_CA_FILE included), 60-second inactivity time-out.
// A connection whose answer was read whole is kept for the next upload to the same server (one,
// for 30 s); a request that meets such a connection closed before any answer goes again on a new
// one.

#include <QByteArray>
#include <QFile>
#include <QObject>
#include <QString>
#include <QTimer>
#include <memory>

class QSslSocket;
class TransferState;

class UploadConnection final : public QObject
{
public:
    explicit UploadConnection(std::shared_ptr<TransferState> state);
    ~UploadConnection() override;

    void start(const QString &path, const QString &url, const QString &time);
    // Stops at once; the state gets no verdict from here.
    void cancel();
    void close();

private:
    void connectFresh();
    void attach(QSslSocket *socket);
    bool retryFresh();
    void takeBody(qint64 bytes);
    void sendHead();
    void pump();
    void readAnswer();
    void connectionEnded();
    void fail(const QString &why);

    std::shared_ptr<TransferState> m_state;
    QFile m_inputStream;
    QSslSocket *m_socket = nullptr; // child
    QTimer m_idle;
    QByteArray m_head;   // request head, sent with the body's first piece
    QByteArray m_chunk;  // reused write buffer: room for the head and one piece
    QByteArray m_answer; // answer head being gathered
    QString m_host;
    quint16 m_port = 443;
    QByteArray m_peer; // host:port, the key of a kept connection
    qint64 m_total = 0;
    qint64 m_sent = 0;
    qint64 m_bodyLeft = -1; // bytes of the answer's body still due; -1 unknown
    bool m_headSent = false;
    bool m_responded = false;
    bool m_closed = false;
    bool m_reused = false;   // on a connection kept from an earlier upload
    bool m_keepable = false; // the server keeps the connection and sized its answer
    bool m_complete = false; // the whole answer was read
};
