#include "server/FaultPlan.h"

std::optional<Fault::Kind> Fault::kindFromName(const QString &name)
{
    static const struct
    {
        const char *name;
        Kind kind;
    } names[] = {{"drop", Kind::Drop},
                 {"cut-reply", Kind::CutReply},
                 {"drop-after", Kind::DropAfterProcessing},
                 {"drop-after-silent", Kind::DropAfterProcessingSilently},
                 {"status", Kind::HttpStatus},
                 {"body", Kind::Body},
                 {"delay", Kind::Delay},
                 {"refuse-upload", Kind::RefuseUpload},
                 {"cut-download", Kind::CutDownload}};
    for (const auto &entry : names) {
        if (name == QLatin1String(entry.name))
            return entry.kind;
    }
    return std::nullopt;
}

void FaultPlan::add(const Fault &fault)
{
    if (fault.count <= 0)
        return;
    QMutexLocker lock(&m_mutex);
    m_faults << fault;
}

std::optional<Fault> FaultPlan::take(const QString &command)
{
    QMutexLocker lock(&m_mutex);
    for (qsizetype i = 0; i < m_faults.size(); ++i) {
        Fault &fault = m_faults[i];
        if (fault.command != command && fault.command != u"*")
            continue;
        // Transfer-only faults never hit an XML command and vice versa.
        if (fault.kind == Fault::Kind::RefuseUpload && command != u"UPLOAD")
            continue;
        if (fault.kind == Fault::Kind::CutDownload && command != u"DOWNLOAD")
            continue;
        if (fault.skip > 0) {
            --fault.skip;
            continue;
        }
        Fault taken = fault;
        if (--fault.count <= 0)
            m_faults.removeAt(i);
        return taken;
    }
    return std::nullopt;
}

void FaultPlan::clear()
{
    QMutexLocker lock(&m_mutex);
    m_faults.clear();
}

int FaultPlan::pending() const
{
    QMutexLocker lock(&m_mutex);
    int total = 0;
    for (const Fault &fault : m_faults)
        total += fault.count; // a fault still skipping is pending too
    return total;
}
