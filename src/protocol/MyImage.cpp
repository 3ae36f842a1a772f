#include "protocol/MyImage.h"

MyImage::MyImage(QString session, QString key) : m_session(std::move(session)), m_key(std::move(key)) {}

QString MyImage::thumbXml() const
{
    return QStringLiteral("<XML><THUMBNAIL SESSION =\"%1\" ><KEY>%2</KEY></THUMBNAIL></XML>")
        .arg(m_session, m_key);
}

QString MyImage::imageXml() const
{
    return QStringLiteral("?do=download&session=%1&key=%2&offset=%3").arg(m_session, m_key).arg(m_offset);
}
