#include "app/AccountView.h"

#include "RestLibrary/RestClient.h"
#include "app/LanguageUtil.h"
#include "app/ViewReplies.h"
#include "util/AppServices.h"
#include "util/Log.h"

#include <QLocale>
#include <stdexcept>

namespace {
constexpr double kGiB = 1073741824.0;
constexpr double kMiB = 1048576.0;

QString text(const char *key)
{
    return LanguageUtil::getStringByKey(QString::fromLatin1(key));
}

// A failure with a name and a reason; what() (the logged text) is the reason alone.
class QuotaFailure : public std::runtime_error
{
public:
    QuotaFailure(const char *name, const char *reason) : std::runtime_error(reason), m_name(name) {}
    const char *name() const { return m_name; }

private:
    const char *m_name;
};
} // namespace

AccountView::AccountView(QObject *parent) : MyViewBase(parent)
{
    for (ViewControl *control : {&m_accountTextField, &m_quotaTextField, &m_progressIndicator,
                                 &m_loadingProgressIndicator, &m_quotaLabel})
        control->setParent(this);
    m_loadingProgressIndicator.setHidden(true);
}

AccountView::~AccountView()
{
    if (m_loading)
        m_loading->wait();
    for (ViewControl *control : {&m_accountTextField, &m_quotaTextField, &m_progressIndicator,
                                 &m_loadingProgressIndicator, &m_quotaLabel})
        control->setParent(nullptr);
}

std::unique_ptr<AccountView> AccountView::instance()
{
    return std::make_unique<AccountView>();
}

void AccountView::viewDidMoveToWindow()
{
    // A second attachment while loading does not send a second request.
    if (m_isLoading.exchange(true))
        return;
    m_quotaLabel.setStringValue(text("quota"));
    loadInfomation();
}

void AccountView::setTitleForComponent()
{
    m_quotaLabel.setStringValue(text("quota"));
}

void AccountView::loadInfomation()
{
    if (m_loading && m_loading->isRunning()) {
        if (m_requestRunning)
            return; // a request is on its way and will report
        // The last loading thread is past its work and only ending: let it end, then load again.
        m_loading->wait();
    }
    m_isLoading = true;
    m_requestRunning = true;
    m_loadingProgressIndicator.setHidden(false);
    m_loadingProgressIndicator.startAnimation();
    // The settings belong to this (main) thread: read them here for the loading thread.
    AppServices *services = appDelegate();
    m_snapshot.logined = services && services->isLogined();
    m_snapshot.mailId = getConfigValueByKey(QStringLiteral("kKeyUseIDMail")).toString();
    m_snapshot.domain = getConfigValueByKey(QStringLiteral("kKeyDomain")).toString();
    m_snapshot.session = getConfigValueByKey(QStringLiteral("kKeySESSTION")).toString();

    QThread *thread = QThread::create([this] { loadInfomationThread(); });
    thread->setObjectName(QStringLiteral("QUOTA"));
    connect(thread, &QThread::finished, thread, &QObject::deleteLater);
    m_loading = thread;
    thread->start();
}

void AccountView::loadInfomationThread()
{
    const Snapshot snapshot = m_snapshot;
    try {
        if (!snapshot.logined) {
            m_accountTextField.setStringValue(text("please_login"));
            m_quotaTextField.setStringValue(QStringLiteral("%1 0MB/0MB").arg(text("used_total")));
            m_progressIndicator.setDoubleValue(0);
        } else {
            m_accountTextField.setStringValue(snapshot.mailId);
            RestClient client;
            client.setHost(snapshot.domain);
            const std::shared_ptr<GDataXMLDocument> document = client.postNonAsyncWithURL(
                QStringLiteral("cgi-bin/cloudXml.cgi"),
                QStringLiteral("<XML><QUOTA SESSION=\"%1\" ></QUOTA></XML>").arg(snapshot.session));
            if (!document)
                throw QuotaFailure("Load information fail", "Maybe internet connect lost");
            // The attribute names go through the language tables on purpose.
            const auto [total, used] =
                ViewReplies::readQuota(document, LanguageUtil::getStringByKey(QStringLiteral("TOTAL")),
                                       LanguageUtil::getStringByKey(QStringLiteral("USED")));
            m_quotaTextField.setStringValue(quotaText(text("used_total"), used, total));
            m_progressIndicator.setDoubleValue(quotaLevel(used, total));
        }
    } catch (const std::exception &e) {
        // The panel keeps what it showed before.
        FV_LOG(QStringLiteral("Load infomation error: %1").arg(QString::fromUtf8(e.what())));
    }
    m_loadingProgressIndicator.stopAnimation();
    m_loadingProgressIndicator.setHidden(true);
    m_requestRunning = false;
    m_isLoading = false;
    emit loadingFinished();
}

QString AccountView::formatNumber(double value)
{
    QLocale locale;
    locale.setNumberOptions(QLocale::OmitGroupSeparator);
    QString number = locale.toString(value, 'f', 2);
    const QString point = locale.decimalPoint();
    if (number.contains(point)) {
        while (number.endsWith(QLatin1Char('0')))
            number.chop(1);
        if (number.endsWith(point))
            number.chop(point.size());
    }
    return number;
}

QString AccountView::quotaText(const QString &usedTotalCaption, double used, double total)
{
    const bool gigabytes = total >= kGiB;
    const double unit = gigabytes ? kGiB : kMiB;
    const QString suffix = gigabytes ? QStringLiteral("GB") : QStringLiteral("MB");
    return QStringLiteral("%1 %2/%3")
        .arg(usedTotalCaption, formatNumber(used / unit) + suffix, formatNumber(total / unit) + suffix);
}

double AccountView::quotaLevel(double used, double total)
{
    return used * 10.0 / total;
}
