#pragma once
// The live part of one upload, on the main thread: the input stream and a streamed HTTPS POST
// written straight to a TLS socket. The body goes out in large pieces as the socket drains, so a
// file of any size costs a bounded amount of memory and little more than the encryption itself.
// The server's verdict ("Velmora-result") is taken as soon as the answer's headers are complete.
//
// Same request as the network manager would send: POST to the caller's URL, Content-Type
// "application/stream", "velmora_filetime", Content-Length of the file, HTTP/1.1, certificates
// verified against the default trust (FERROVANE_CA_FILE included), 60-second inactivity time-out.

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
    void sendHead();
    void pump();
    void readAnswer();
    void connectionEnded();
    void fail(const QString &why);

    std::shared_ptr<TransferState> m_state;
    QFile m_inputStream;
    QSslSocket *m_socket = nullptr; // child
    QTimer m_idle;
    QByteArray m_head;   // request head, sent once encrypted
    QByteArray m_chunk;  // reused read buffer
    QByteArray m_answer; // answer head being gathered
    qint64 m_total = 0;
    qint64 m_sent = 0;
    bool m_responded = false;
    bool m_closed = false;
};
