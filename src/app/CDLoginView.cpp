#include "app/CDLoginView.h"

#include "app/LanguageUtil.h"
#include "app/ViewReplies.h"
#include "catalogue/DatabaseUtils.h"
#include "catalogue/ManagedObjectContext.h"
#include "protocol/GetPrimaryMACAddress.h"
#include "util/AppServices.h"
#include "util/Codecs.h"
#include "util/Log.h"

void CDLoginViewDelegate::didLoginSuccessful(CDLoginView *) {}

namespace {
// Only the space character counts as a blank here (not tabs or line breaks).
QString trimSpaces(const QString &text)
{
    qsizetype start = 0, end = text.size();
    while (start < end && text.at(start) == QLatin1Char(' '))
        ++start;
    while (end > start && text.at(end - 1) == QLatin1Char(' '))
        --end;
    return text.mid(start, end - start);
}

QString text(const char *key)
{
    return LanguageUtil::getStringByKey(QString::fromLatin1(key));
}
} // namespace

CDLoginView::CDLoginView(QObject *parent) : MyViewBase(parent)
{
    for (ViewControl *control :
         {&m_domainTextField, &m_useridTextField, &m_passwordTextField, &m_loginButton, &m_saveInfomation,
          &m_failTextField, &m_domainLabel, &m_userIDLabel, &m_passwordLabel, &m_messLabel,
          &m_viewForUserPassword, &m_progressIndicator})
        control->setParent(this);
    m_failTextField.setHidden(true);
    m_progressIndicator.setHidden(true);
    setTitleForComponent();
}

CDLoginView::~CDLoginView()
{
    // The command's thread reports back through this view: let it finish first.
    if (m_sending)
        m_sending->wait();
    for (ViewControl *control :
         {&m_domainTextField, &m_useridTextField, &m_passwordTextField, &m_loginButton, &m_saveInfomation,
          &m_failTextField, &m_domainLabel, &m_userIDLabel, &m_passwordLabel, &m_messLabel,
          &m_viewForUserPassword, &m_progressIndicator})
        control->setParent(nullptr);
}

std::unique_ptr<CDLoginView> CDLoginView::getInstanceInFrame()
{
    auto view = std::make_unique<CDLoginView>();
    view->checkInfomation();
    return view;
}

bool CDLoginView::isSending() const
{
    return m_sending && m_sending->isRunning();
}

void CDLoginView::setTitleForComponent()
{
    m_domainLabel.setStringValue(text("domain"));
    m_userIDLabel.setStringValue(text("id"));
    m_passwordLabel.setStringValue(text("password"));
    m_saveInfomation.setStringValue(text("save_info"));
    m_loginButton.setStringValue(text("login"));
}

void CDLoginView::checkInfomation()
{
    if (getConfigValueByKey(QStringLiteral("kKeySESSTION")).toString().isEmpty())
        return;
    m_useridTextField.setStringValue(getConfigValueByKey(QStringLiteral("kKeyUseID")).toString());
    m_passwordTextField.setStringValue(getConfigValueByKey(QStringLiteral("kKeyPassword")).toString());
    m_domainTextField.setStringValue(getConfigValueByKey(QStringLiteral("kKeyDomain")).toString());
    m_saveInfomation.setChecked(true);
}

bool CDLoginView::checkInput()
{
    const struct
    {
        ViewControl *field;
        const char *error;
    } checks[] = {{&m_domainTextField, "domain_error"},
                  {&m_useridTextField, "user_error"},
                  {&m_passwordTextField, "password_error"}};
    for (const auto &check : checks) {
        if (trimSpaces(check.field->stringValue()).isEmpty()) {
            m_failTextField.setStringValue(text(check.error));
            m_failTextField.setHidden(false);
            check.field->makeFirstResponder();
            return false;
        }
    }
    return true;
}

void CDLoginView::login()
{
    if (isSending())
        return;
    if (!checkInput()) {
        emit loginFailed(Failure::Incomplete);
        return;
    }
    if (!m_client)
        m_client = std::make_shared<RestClient>();
    m_client->setDelegate(this);

    QString host = m_domainTextField.stringValue();
    if (!host.contains(QLatin1String("https://")))
        host = QStringLiteral("https://%1/").arg(host);
    m_client->setHost(host);
    m_client->clearParam();
    m_loginButton.setEnabled(false);
    setConfigValue(host, QStringLiteral("host"));

    const QString pcName = getConfigValueByKey(QStringLiteral("kKeyPCName")).toString();
    const QString mac = GetPrimaryMACAddress::MacAddress();
    // What the user typed is escaped for XML; blanks around it are kept.
    const QString body =
        QStringLiteral(
            "<XML><LOGIN ID=\"%1\" PASSWORD=\"%2\" ENCODE=\"raw\" PCNAME = \"%3\" MAC=\"%4\" VER=\"%5\">"
            "</LOGIN></XML>")
            .arg(gtm_stringBySanitizingAndEscapingForXML(m_useridTextField.stringValue()),
                 gtm_stringBySanitizingAndEscapingForXML(m_passwordTextField.stringValue()),
                 gtm_stringBySanitizingAndEscapingForXML(pcName), mac, clientVersion());

    std::shared_ptr<RestClient> client = m_client;
    const QStringList info = {QStringLiteral("cgi-bin/cloudXml.cgi"), body};
    QThread *thread = QThread::create([client, info] { client->postNonAsyncWithArrayInfo(info); });
    thread->setObjectName(QStringLiteral("LOGIN"));
    connect(thread, &QThread::finished, thread, &QObject::deleteLater);
    // A reply that is not XML reaches neither callback: once the thread is done (its answer, if
    // any, was queued here before this), treat the silence as no answer.
    m_answered = false;
    const quint64 attempt = ++m_attempts;
    connect(thread, &QThread::finished, this, [this, attempt] {
        if (attempt == m_attempts && !m_answered)
            restClientHasFail(nullptr, std::nullopt);
    });
    m_sending = thread;
    thread->start();

    m_failTextField.setHidden(true);
    m_progressIndicator.setHidden(false);
    m_progressIndicator.startAnimation();
}

void CDLoginView::showLoginFailMess()
{
    m_failTextField.setStringValue(text("login_error"));
    m_failTextField.setHidden(false);
    m_loginButton.setEnabled(true);
    m_progressIndicator.stopAnimation();
    m_progressIndicator.setHidden(true);
    emit loginFailed(Failure::Refused);
}

void CDLoginView::restClientDidFinishRequestwithData(RestClient *client,
                                                     const std::shared_ptr<GDataXMLDocument> &document)
{
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(
            this, [this, client, document] { restClientDidFinishRequestwithData(client, document); },
            Qt::QueuedConnection);
        return;
    }
    m_answered = true;
    // The last LOGIN element wins; a missing RESULT counts as success.
    const auto [result, timezone, mailId] = ViewReplies::readLogin(document);
    if (result == QLatin1String("-1")) {
        showLoginFailMess();
        return;
    }
    m_failTextField.setHidden(true);

    AppServices *services = appDelegate();
    if (!services) {
        FV_LOG(QStringLiteral("No application services: sign-in not stored"));
        showLoginFailMess();
        return;
    }
    const QString domain = m_domainTextField.stringValue();
    const QString userId = m_useridTextField.stringValue();
    const QString password = m_passwordTextField.stringValue();

    const QVariant startup = getConfigValueByKey(QStringLiteral("kKeyStartup"));
    const QVariant autoStart = getConfigValueByKey(QStringLiteral("kKeyAutoStart"));
    services->clearAccountInfomation();
    saveConfig();
    setConfigValue(startup, QStringLiteral("kKeyStartup"));
    setConfigValue(autoStart, QStringLiteral("kKeyAutoStart"));
    setConfigValue(result, QStringLiteral("kKeySESSTION"));
    setConfigValue(domain, QStringLiteral("kKeyDomain"));
    setConfigValue(userId, QStringLiteral("kKeyUseID"));
    setConfigValue(password, QStringLiteral("kKeyPassword"));
    setConfigValue(mailId, QStringLiteral("kKeyUseIDMail"));

    services->setIsLogined(true);

    std::shared_ptr<DatabaseUtils> database = DatabaseUtils::instance();
    m_infomation = database ? database->getInfomation() : nullptr;
    const std::shared_ptr<ManagedObjectContext> context = services->managedObjectContext();
    if (!m_infomation && context)
        m_infomation = context->insertNewObject<Infomation>();
    if (m_infomation) {
        m_infomation->setAccount(userId);
        m_infomation->setDomain(domain);
        m_infomation->setPassword(password);
        m_infomation->setSession(result);
        m_infomation->setAutoLogin(true);
        m_infomation->setTimezone(timezone);
    } else {
        FV_LOG(QStringLiteral("No catalogue context: the account record is not stored"));
    }
    saveConfig();
    if (context) {
        FvError error;
        if (!context->save(&error))
            FV_LOG(QStringLiteral("Cannot save infomation: %1").arg(error.toString()));
    }
    if (m_delegate)
        m_delegate->didLoginSuccessful(this);
}

void CDLoginView::restClientHasFail(RestClient *client, const std::optional<QVariantMap> &info)
{
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(
            this, [this, client, info] { restClientHasFail(client, info); }, Qt::QueuedConnection);
        return;
    }
    m_answered = true;
    if (info) {
        showLoginFailMess();
        return;
    }
    m_failTextField.setStringValue(
        QStringLiteral("%1 / %2").arg(text("check_internet"), text("domain_error")));
    m_failTextField.setHidden(false);
    m_loginButton.setEnabled(true);
    m_progressIndicator.stopAnimation();
    m_progressIndicator.setHidden(true);
    emit loginFailed(Failure::NoAnswer);
}
