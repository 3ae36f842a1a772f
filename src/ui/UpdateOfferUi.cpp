#include "ui/UpdateOfferUi.h"

#include "app/CheckUpdate.h"
#include "app/LanguageUtil.h"
#include "ui/DownloadUpdateWindowWidget.h"

#include <QMessageBox>
#include <QPushButton>

namespace {
QString text(const char *key)
{
    return LanguageUtil::getStringByKey(QString::fromLatin1(key));
}
} // namespace

UpdateOfferUi::UpdateOfferUi(CheckUpdate *checker, QWidget *mainWindow, QObject *parent)
    : QObject(parent), m_checker(checker), m_mainWindow(mainWindow)
{
    connect(checker, &CheckUpdate::newVersionOffered, this, &UpdateOfferUi::showNewVersionAlert);
    connect(checker, &CheckUpdate::downloadWindowCreated, this, &UpdateOfferUi::showDownloadWindow);
    if (DownloadUpdateWindowController *existing = checker->downloadWindow())
        showDownloadWindow(existing);
}

void UpdateOfferUi::showNewVersionAlert(const QString &version, const QString &build)
{
    if (m_alert)
        m_alert->close();
    if (m_mainWindow) {
        m_mainWindow->show();
        m_mainWindow->raise();
        m_mainWindow->activateWindow();
    }
    auto *alert = new QMessageBox(m_mainWindow);
    alert->setAttribute(Qt::WA_DeleteOnClose);
    alert->setIcon(QMessageBox::Information);
    alert->setWindowTitle(QStringLiteral("Ferrovane"));
    alert->setText(CheckUpdate::alertTitle());
    alert->setInformativeText(CheckUpdate::alertInformativeText(version, build));
    QPushButton *update = alert->addButton(text("update"), QMessageBox::AcceptRole);
    alert->addButton(text("cancel"), QMessageBox::RejectRole);
    alert->setDefaultButton(update);
    connect(alert, &QMessageBox::finished, this, [this, alert, update] {
        if (m_checker)
            m_checker->alertDidEnd(alert->clickedButton() == update ? CheckUpdate::DefaultReturn
                                                                    : CheckUpdate::AlternateReturn);
    });
    m_alert = alert;
    // A sheet on the main window when there is one; never blocks the event loop.
    alert->open();
}

void UpdateOfferUi::showDownloadWindow(DownloadUpdateWindowController *controller)
{
    // The widget goes with its controller.
    new DownloadUpdateWindowWidget(controller);
}

QMessageBox *UpdateOfferUi::alert() const
{
    return m_alert;
}
