#pragma once
// The update check's face: shows the offer of a newer version as a message box (a sheet on the
// main window when there is one, which is brought to the front first), passes the user's answer
// back to CheckUpdate, and gives every download window the checker creates its widget.
// Main thread; lives as long as its parent (or until destroyed), independent of the checker.

#include <QObject>
#include <QPointer>

class CheckUpdate;
class DownloadUpdateWindowController;
class QMessageBox;
class QWidget;

class UpdateOfferUi final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(UpdateOfferUi)
public:
    UpdateOfferUi(CheckUpdate *checker, QWidget *mainWindow, QObject *parent = nullptr);

    // The offer on screen, if any.
    QMessageBox *alert() const;

private:
    void showNewVersionAlert(const QString &version, const QString &build);
    void showDownloadWindow(DownloadUpdateWindowController *controller);

    QPointer<CheckUpdate> m_checker;
    QPointer<QWidget> m_mainWindow;
    QPointer<QMessageBox> m_alert;
};
