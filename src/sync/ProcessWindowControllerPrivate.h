#pragma once
// Shared by the sync engine's source files only: the state the main thread clears while the worker
// may still read it, the thread type, and small helpers.

#include "sync/ProcessWindowController.h"

#include <QMutex>
#include <QSet>
#include <QString>
#include <QThread>
#include <functional>
#include <memory>

class GDataXMLElement;

// Thrown to end the current thread's job at once; caught at the job's entry, never across an event
// loop. On the worker the entry then ends the thread.
struct EndThread
{
};

struct ProcessWindowController::Fields
{
    mutable QMutex lock;
    QString path;
    QString macName;
    std::shared_ptr<RestClient> restClient;
    std::shared_ptr<FolderUtil> folderUtil;
    QList<QStringList> listDownload;
    QList<ProcessTask> listTask;
    // Files of the first synchronisation whose fetch failed, as work-list adds to apply again.
    QList<ProcessTask> missedDownloads;
    // Local paths the user has been told do not fit on the disk.
    QSet<QString> reportedNoSpace;
    QTimer *checkSyncTimer = nullptr; // lives on the worker, child of its receiver
};

// A thread whose body is a function (the engine's worker and listener queue).
class EngineThread final : public QThread
{
public:
    explicit EngineThread(std::function<void()> body) : m_body(std::move(body)) {}

protected:
    void run() override { m_body(); }

private:
    std::function<void()> m_body;
};

namespace EngineDetail {

inline const QString kEndpoint = QStringLiteral("cgi-bin/cloudXml.cgi");
inline const QString kBundleIdentifier = QStringLiteral("com.velmora.Ferrovane");
// Names of the hidden files a download fills before they take the file's name: never sent.
inline const QString kPartPrefix = QStringLiteral(".ferrovane-");

// Consecutive unreadable work-list replies (0 to 3) and completed passes (0 to 59), shared by every
// controller of the process.
int unreadableReplies();
void setUnreadableReplies(int count);
void countPass();

// An attribute's value, null when absent.
QString attribute(const std::shared_ptr<GDataXMLElement> &element, const QString &name);
// The element children of `element`, in document order.
QList<std::shared_ptr<GDataXMLElement>> childElements(const std::shared_ptr<GDataXMLElement> &element);
// The first child element of the document's root called `name`, or null.
std::shared_ptr<GDataXMLElement> firstElement(const std::shared_ptr<GDataXMLDocument> &document,
                                              const QString &name);

} // namespace EngineDetail
