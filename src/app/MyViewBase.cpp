#include "app/MyViewBase.h"

#include "util/AppServices.h"
#include "util/Log.h"

MyViewBase::MyViewBase(QObject *parent) : QObject(parent), m_appDelegate(AppServices::shared()) {}

MyViewBase::~MyViewBase() = default;

AppServices *MyViewBase::appDelegate() const
{
    return m_appDelegate ? m_appDelegate : AppServices::shared();
}

QVariant MyViewBase::getConfigValueByKey(const QString &key) const
{
    AppServices *services = appDelegate();
    return services ? services->getConfigValueByKey(key) : QVariant();
}

void MyViewBase::setConfigValue(const QVariant &value, const QString &key)
{
    if (AppServices *services = appDelegate())
        services->setConfigValue(value, key);
    else
        FV_LOG(QStringLiteral("No application services: %1 not stored").arg(key));
}

void MyViewBase::saveConfig()
{
    if (AppServices *services = appDelegate())
        services->saveConfig();
}

void MyViewBase::setTitleForComponent() {}
