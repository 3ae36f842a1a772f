#pragma once
// The sign-in view's logic: the domain, user id and password fields, the button, the failure
// text and the progress indicator as ViewControl state; the LOGIN command sent on a background
// thread; on success the session and credentials stored in the settings and in the Infomation
// record, and the delegate told.
//
// Threading: main thread. The command runs on a thread of its own; its answer is handled back on
// the main thread (settings, controls and the main catalogue context all belong there). The view
// waits for a running command when it is destroyed.

#include "RestLibrary/RestClient.h"
#include "app/MyViewBase.h"
#include "app/ViewControl.h"
#include "catalogue/Records.h"

#include <QPointer>
#include <QThread>
#include <memory>

class CDLoginView;

// Optional callback: the default does nothing.
class CDLoginViewDelegate
{
public:
    virtual ~CDLoginViewDelegate() = default;
    virtual void didLoginSuccessful(CDLoginView *view);
};

class CDLoginView final : public MyViewBase, public RestClientDelegate
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CDLoginView)
public:
    // Sent as VER.
    static QString clientVersion() { return QStringLiteral("20130128"); }

    // Why a sign-in attempt ended without success.
    enum class Failure {
        Incomplete, // a field was empty; nothing was sent
        Refused,    // the server refused the user id or password
        NoAnswer,   // no usable answer (nobody there, TLS refused, HTTP error, not XML)
    };
    Q_ENUM(Failure)

    explicit CDLoginView(QObject *parent = nullptr);
    ~CDLoginView() override;
    // A new view with the stored credentials filled in (checkInfomation).
    static std::unique_ptr<CDLoginView> getInstanceInFrame();

    ViewControl *domainTextField() { return &m_domainTextField; }
    ViewControl *useridTextField() { return &m_useridTextField; }
    ViewControl *passwordTextField() { return &m_passwordTextField; }
    ViewControl *loginButton() { return &m_loginButton; }
    ViewControl *saveInfomation() { return &m_saveInfomation; }
    ViewControl *failTextField() { return &m_failTextField; }
    ViewControl *domainLabel() { return &m_domainLabel; }
    ViewControl *userIDLabel() { return &m_userIDLabel; }
    ViewControl *passwordLabel() { return &m_passwordLabel; }
    ViewControl *messLabel() { return &m_messLabel; }
    ViewControl *viewForUserPassword() { return &m_viewForUserPassword; }
    ViewControl *progressIndicator() { return &m_progressIndicator; }

    CDLoginViewDelegate *delegate() const { return m_delegate; }
    void setDelegate(CDLoginViewDelegate *delegate) { m_delegate = delegate; }
    const InfomationPtr &infomation() const { return m_infomation; }
    // True while a LOGIN command is on its way.
    bool isSending() const;

    void setTitleForComponent() override;
    void checkInfomation();
    bool checkInput();
    // The button's action.
    void login();
    void showLoginFailMess();

    // The command's answer (main thread; calls from another thread are forwarded to it).
    void restClientDidFinishRequestwithData(RestClient *client,
                                            const std::shared_ptr<GDataXMLDocument> &document) override;
    void restClientHasFail(RestClient *client, const std::optional<QVariantMap> &info) override;

signals:
    // After the view showed the failure (main thread).
    void loginFailed(CDLoginView::Failure failure);

private:
    ViewControl m_domainTextField;
    ViewControl m_useridTextField;
    ViewControl m_passwordTextField;
    ViewControl m_loginButton;
    ViewControl m_saveInfomation;
    ViewControl m_failTextField;
    ViewControl m_domainLabel;
    ViewControl m_userIDLabel;
    ViewControl m_passwordLabel;
    ViewControl m_messLabel;
    ViewControl m_viewForUserPassword;
    ViewControl m_progressIndicator;

    CDLoginViewDelegate *m_delegate = nullptr;
    InfomationPtr m_infomation;
    std::shared_ptr<RestClient> m_client; // shared with the command's thread
    QPointer<QThread> m_sending;
    bool m_answered = false; // the current command's answer (or failure) has been handled
    quint64 m_attempts = 0;
};
