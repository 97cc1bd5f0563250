#include "LoopbackHTTPServer.h"
#include "TestSupport.h"

#include "auth/ZDAuthenticator.h"
#include "core/ZDNotificationCenter.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {

constexpr ZDAuthenticatorState kSigningIn = 1; // a subclass's own state

// What a service plug-in writes: a form POST that answers "account=...".
class ServiceAuthenticator : public ZDAuthenticator
{
public:
    explicit ServiceAuthenticator(QUrl endpoint) : m_endpoint(std::move(endpoint)) {}

    void authenticateWithUsernamePassword(const QString &username, const QString &password) override
    {
        m_authenticationRequest = std::make_unique<JSONHTTPRequest>(m_endpoint, this);
        m_authenticationRequest->setHTTPMethod(JSONHTTPRequestMethodFormPOST);
        m_authenticationRequest->setResponseType(JSONHTTPResponseTypeFormString);
        m_authenticationRequest->setPostParams(
            QVariantMap{{u"user"_s, username}, {u"password"_s, password}});
        m_authenticationRequest->start();
        m_authenticatorState = kSigningIn;
        _notifyStateChange();
    }

    void requestDidReceiveObject(JSONHTTPRequest *, const QVariant &object) override
    {
        m_authenticationRequest.reset();
        m_account = object.toMap().value(u"account"_s).toString();
        m_authenticatorState = ZDAuthenticatorStateSignedIn;
        _notifyStateChange();
    }

    void signInAs(const QString &account)
    {
        m_account = account;
        m_authenticatorState = ZDAuthenticatorStateSignedIn;
    }
    void setState(ZDAuthenticatorState state) { m_authenticatorState = state; }
    bool hasRequest() const { return m_authenticationRequest != nullptr; }

private:
    QUrl m_endpoint;
};

// Records the announcements of one authenticator as "change:<state>:<account>"
// and "failure".
class Announcements : public ZDWeakTarget
{
public:
    explicit Announcements(const ZDAuthenticator *sender)
    {
        auto &center = ZDNotificationCenter::defaultCenter();
        center.addObserver(this, ZDAuthenticatorStateChangeNotification, sender,
                           [this, sender](const ZDNotification &note) {
                               QVERIFY(note.userInfo.keys() == QStringList{u"state"_s});
                               seen << u"change:%1:%2"_s.arg(note.userInfo[u"state"_s].toLongLong())
                                           .arg(sender->account());
                           });
        center.addObserver(this, ZDAuthenticatorFailureNotification, sender,
                           [this](const ZDNotification &note) {
                               QVERIFY(note.userInfo.isEmpty());
                               seen << u"failure"_s;
                           });
    }
    ~Announcements() override { ZDNotificationCenter::defaultCenter().removeObserver(this); }

    QStringList seen;
};

} // namespace

class tst_Authenticator : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_server.listen()); }
    void signInAnnouncesEachStateItPasses();
    void failedSignInAnnouncesSignedOutThenFailureAndKeepsTheAccount_data();
    void failedSignInAnnouncesSignedOutThenFailureAndKeepsTheAccount();
    void invalidateClearsStateAndAccount();
    void baseLoadCredentialsAnnouncesTheUnchangedState();
    void baseHasNoDialog();
    void abstractOperationsStopTheProgram_data();
    void abstractOperationsStopTheProgram();

private:
    LoopbackHTTPServer m_server;
};

void tst_Authenticator::signInAnnouncesEachStateItPasses()
{
    m_server.setHandler([](const RecordedRequest &request) {
        CannedReply reply;
        reply.body = request.body.contains("password=secret") ? "account=Ann%20Lee&token=t" : "";
        return reply;
    });
    ServiceAuthenticator authenticator(m_server.url(u"/token"_s));
    Announcements announcements(&authenticator);
    authenticator.authenticateWithUsernamePassword(u"ann"_s, u"secret"_s);
    QTRY_COMPARE_WITH_TIMEOUT(authenticator.authenticatorState(), ZDAuthenticatorStateSignedIn,
                              30000);
    // Form-string values keep their escapes.
    QCOMPARE(authenticator.account(), u"Ann%20Lee"_s);
    QCOMPARE(announcements.seen, (QStringList{u"change:1:"_s, u"change:2:Ann%20Lee"_s}));
    QVERIFY(!authenticator.hasRequest());
}

void tst_Authenticator::failedSignInAnnouncesSignedOutThenFailureAndKeepsTheAccount_data()
{
    QTest::addColumn<bool>("listening");
    QTest::newRow("refused with 401") << true;
    QTest::newRow("nobody listening") << false;
}

void tst_Authenticator::failedSignInAnnouncesSignedOutThenFailureAndKeepsTheAccount()
{
    QFETCH(bool, listening);
    m_server.setHandler([](const RecordedRequest &) {
        CannedReply reply;
        reply.status = 401;
        reply.body = "wrong password";
        return reply;
    });
    ServiceAuthenticator authenticator(listening ? m_server.url(u"/token"_s)
                                                 : QUrl(u"http://127.0.0.1:1/token"_s));
    authenticator.signInAs(u"Old"_s);
    Announcements announcements(&authenticator);
    authenticator.authenticateWithUsernamePassword(u"ann"_s, u"wrong"_s);
    QTRY_VERIFY_WITH_TIMEOUT(announcements.seen.contains(u"failure"_s), 30000);
    QCOMPARE(announcements.seen, (QStringList{u"change:1:Old"_s, u"change:0:Old"_s, u"failure"_s}));
    QCOMPARE(authenticator.authenticatorState(), ZDAuthenticatorStateSignedOut);
    QCOMPARE(authenticator.account(), u"Old"_s);
    QVERIFY(!authenticator.hasRequest());
}

void tst_Authenticator::invalidateClearsStateAndAccount()
{
    ServiceAuthenticator authenticator(QUrl(u"http://127.0.0.1/"_s));
    authenticator.signInAs(u"Ann"_s);
    Announcements announcements(&authenticator);
    authenticator.invalidateAuthentication();
    QCOMPARE(authenticator.authenticatorState(), ZDAuthenticatorStateSignedOut);
    QVERIFY(authenticator.account().isNull());
    QCOMPARE(announcements.seen, QStringList{u"change:0:"_s});
}

void tst_Authenticator::baseLoadCredentialsAnnouncesTheUnchangedState()
{
    ServiceAuthenticator authenticator(QUrl(u"http://127.0.0.1/"_s));
    authenticator.setState(7);
    Announcements announcements(&authenticator);
    // Another authenticator's announcements are not ours.
    ServiceAuthenticator other(QUrl(u"http://127.0.0.1/"_s));
    other.invalidateAuthentication();
    authenticator.loadCredentials();
    QCOMPARE(announcements.seen, QStringList{u"change:7:"_s});
    QCOMPARE(authenticator.authenticatorState(), ZDAuthenticatorState(7));
}

void tst_Authenticator::baseHasNoDialog()
{
    ServiceAuthenticator authenticator(QUrl(u"http://127.0.0.1/"_s));
    QCOMPARE(authenticator.authenticationDialogWithTargetAction(this, [] {}), nullptr);
}

void tst_Authenticator::abstractOperationsStopTheProgram_data()
{
    QTest::addColumn<QByteArray>("operation");
    QTest::newRow("sharedAuthenticator") << QByteArray("ZDAuthenticator::sharedAuthenticator");
    QTest::newRow("authenticate") << QByteArray(
        "ZDAuthenticator::authenticateWithUsernamePassword");
    QTest::newRow("response") << QByteArray("ZDAuthenticator::requestDidReceiveObject");
}

void tst_Authenticator::abstractOperationsStopTheProgram()
{
    QFETCH(QByteArray, operation);
    if (inDeathChild()) {
        ZDAuthenticator base;
        if (operation.endsWith("sharedAuthenticator"))
            ZDAuthenticator::sharedAuthenticator();
        else if (operation.endsWith("Password"))
            base.authenticateWithUsernamePassword(u"a"_s, u"b"_s);
        else
            base.requestDidReceiveObject(nullptr, QVariant());
        return;
    }
    const DeathOutcome outcome = runDeathChild("abstractOperationsStopTheProgram",
                                               QString::fromLatin1(QTest::currentDataTag()));
    QVERIFY2(diedSaying(outcome, {"(0)", operation.constData()}), outcome.stderrText.constData());
}

QTEST_GUILESS_MAIN(tst_Authenticator)
#include "tst_authenticator.moc"
