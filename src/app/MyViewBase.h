#pragma once
// Base of the application's content views (the sign-in view, the account panel): holds the
// application's services, taken when the view is made, and forwards the settings calls to them.
// Main thread.

#include <QObject>
#include <QString>
#include <QVariant>

class AppServices;

class MyViewBase : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(MyViewBase)
public:
    explicit MyViewBase(QObject *parent = nullptr);
    ~MyViewBase() override;

    // The services taken at creation, or the current ones when there were none then.
    AppServices *appDelegate() const;

    QVariant getConfigValueByKey(const QString &key) const;
    void setConfigValue(const QVariant &value, const QString &key);
    void saveConfig();
    // Fills the captions from the localised strings; called before the view is first shown.
    virtual void setTitleForComponent();

private:
    AppServices *m_appDelegate = nullptr;
};
