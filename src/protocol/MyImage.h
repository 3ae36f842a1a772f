#pragma once
// One picture of the thumbnail browser: the server key of a file and the two requests that fetch
// its thumbnail and its full image. A plain value.

#include <QByteArray>
#include <QString>

class MyImage
{
public:
    MyImage() = default;
    MyImage(QString session, QString key); // initWithSession:key:

    // The THUMBNAIL command for this key.
    QString thumbXml() const;
    // The download query for the whole image from `offset`.
    QString imageXml() const;

    const QString &session() const { return m_session; }
    void setSession(const QString &session) { m_session = session; }
    const QString &key() const { return m_key; }
    void setKey(const QString &key) { m_key = key; }
    const QString &name() const { return m_name; }
    void setName(const QString &name) { m_name = name; }
    const QString &comment() const { return m_comment; }
    void setComment(const QString &comment) { m_comment = comment; }
    // The encoded image bytes once fetched.
    const QByteArray &image() const { return m_image; }
    void setImage(const QByteArray &image) { m_image = image; }
    quint64 offset() const { return m_offset; }
    void setOffset(quint64 offset) { m_offset = offset; }

private:
    QString m_session;
    QString m_key;
    QString m_name;
    QString m_comment;
    QByteArray m_image;
    quint64 m_offset = 0;
};
