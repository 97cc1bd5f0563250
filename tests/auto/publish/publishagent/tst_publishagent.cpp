#include "FormFixtures.h"
#include "TestSupport.h"

#include "publish/ZDPublishAgent.h"
#include "toolkit/ZDDevice.h"

#include <QLabel>
#include <QTest>

#include <limits>

namespace {

// A host that records what the agent asks of it, in order.
class RecordingAgent : public ZDPublishAgent
{
public:
    explicit RecordingAgent(TestAuthenticator *auth) : m_auth(auth) {}

    ZDPublishViewControllerClass publishViewControllerClass() override
    {
        return [this] {
            calls << u"form"_s;
            return ZDPublishViewController::create<TestForm>(m_auth, FormOptions{});
        };
    }
    qint64 estimatedHDUploadBytes() override
    {
        calls << u"HD"_s;
        return hdBytes;
    }
    qint64 estimatedSDUploadBytes() override
    {
        calls << u"SD"_s;
        return sdBytes;
    }
    void setChosenOption(int option) override { calls << u"option:%1"_s.arg(option); }
    void confirmPublishing() override { calls << u"confirm"_s; }
    void abandonPublishing() override { calls << u"abandon"_s; }
    void setPublishingInProgress(bool on) override { calls << u"inProgress:%1"_s.arg(on); }
    void reportBytesWrittenOfTotal(qint64 written, qint64 total) override
    {
        calls << u"bytes:%1/%2"_s.arg(written).arg(total);
    }

    // What a service's agent does when the host goes on to publish.
    ZDPublishPost *startPost()
    {
        m_publishPost = std::make_unique<ZDPublishPost>(this);
        setPublishingInProgress(true);
        m_publishPost->startUpload();
        return m_publishPost.get();
    }
    // The sheet on screen, phone-sized; its form, or null if it did not show.
    TestForm *shownForm()
    {
        QWidget *window = navigationController()->view();
        window->resize(320, 480);
        window->show();
        if (!QTest::qWaitForWindowExposed(window))
            return nullptr;
        return static_cast<TestForm *>(publishViewController());
    }
    void adoptForm(std::unique_ptr<ZDPublishViewController> form)
    {
        m_publishViewController = std::move(form);
    }

    QStringList calls;
    qint64 hdBytes = 48 * 1024 * 1024;
    qint64 sdBytes = 12 * 1024 * 1024;

private:
    TestAuthenticator *m_auth;
};

class HostSheet : public PublishingAgentHostDelegate
{
public:
    void agentDidFinishPublishingError(PublishingAgentBase *,
                                       const std::optional<ZDError> &error) override
    {
        endings.append(error);
    }
    QList<std::optional<ZDError>> endings;
};

} // namespace

class tst_PublishAgent : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { ZDDevice::setKind(ZDDeviceKind::Phone); }
    void cleanup() { ZDDevice::resetKind(); }
    void buildsOneFormWithTheHostsSizesHDFirst();
    void publishHandsTheChosenQualityToTheHostThenConfirmsAndCancelAbandons();
    void progressAndOutcomeReachTheHost();
    void aSecondFormIsAFault();
    void estimatesBeyond32BitsSaturateAndShowAsALeast_data();
    void estimatesBeyond32BitsSaturateAndShowAsALeast();
};

void tst_PublishAgent::buildsOneFormWithTheHostsSizesHDFirst()
{
    TestAuthenticator auth;
    RecordingAgent agent(&auth);
    ZDNavigationController *navigation = agent.navigationController();
    QVERIFY(navigation);
    QCOMPARE(agent.navigationController(), navigation);
    QCOMPARE(agent.calls, (QStringList{u"form"_s, u"HD"_s, u"SD"_s}));
    ZDPublishViewController *form = agent.publishViewController();
    QCOMPARE(navigation->rootViewController(), form);
    QCOMPARE(form->HDSize(), 48 * 1024 * 1024);
    QCOMPARE(form->SDSize(), 12 * 1024 * 1024);
    QCOMPARE(form->delegate(), &agent);
    QVERIFY(form->showHDSection()); // the agent leaves it as the form set it
    QVERIFY(!agent.allowsTellingFriend());
    QVERIFY(!agent.allowsViewingOnHost());
}

void tst_PublishAgent::publishHandsTheChosenQualityToTheHostThenConfirmsAndCancelAbandons()
{
    TestAuthenticator auth;
    auth.setSignedIn(u"Ann"_s);
    RecordingAgent agent(&auth);
    TestForm *form = agent.shownForm();
    QVERIFY(form);
    form->setEnableHDSection(true);
    form->tableView()->reloadData();
    const QRect hd = form->tableView()->rectForRowAtIndexPath({int(form->sectionIndices().hd), 1});
    QTest::mouseClick(form->tableView()->contentWidget(), Qt::LeftButton, {},
                      QPoint(hd.left() + 4, hd.center().y()));
    QTest::keyClicks(form->titleCell()->editor(), u"Trip"_s);
    agent.calls.clear();
    QTest::mouseClick(agent.navigationController()->rightButton(), Qt::LeftButton);
    QCOMPARE(agent.calls, (QStringList{u"option:1"_s, u"confirm"_s}));
    QCOMPARE(agent.mediaTitle(), u"Trip"_s);
    agent.calls.clear();
    QTest::mouseClick(agent.navigationController()->leftButton(), Qt::LeftButton);
    QCOMPARE(agent.calls, QStringList{u"abandon"_s});
    form->titleCell()->becomeFirstResponder();
    agent.resignPublishingSheetResponders();
    QVERIFY(!form->titleCell()->isFirstResponder());
}

void tst_PublishAgent::progressAndOutcomeReachTheHost()
{
    TestAuthenticator auth;
    RecordingAgent agent(&auth);
    HostSheet sheet;
    agent.setHostDelegate(&sheet);
    ZDPublishPost *post = agent.startPost();
    QCOMPARE(post->delegate(), &agent);
    QVERIFY(!post->allowsCellularAccessForUploads());
    post->delegate()->publishPostHasWrittenBytesExpectsToWrite(post, 100, 1000);
    post->delegate()->publishPostHasWrittenBytesExpectsToWrite(post, 1000, 1000);
    post->delegate()->publishPostSucceeded(post);
    QCOMPARE(agent.calls, (QStringList{u"inProgress:1"_s, u"bytes:100/1000"_s, u"bytes:1000/1000"_s,
                                       u"inProgress:0"_s}));
    QCOMPARE(sheet.endings, QList<std::optional<ZDError>>{std::nullopt});

    const ZDError error(u"Upload"_s, 7, {{ZDLocalizedDescriptionKey, u"boom"_s}});
    // The one line the agent must write: a warning of zd.publish, so that a
    // host's logging rules reach it.
    static QList<std::pair<QByteArray, QString>> warnings;
    const QtMessageHandler previous = qInstallMessageHandler(
        [](QtMsgType type, const QMessageLogContext &context, const QString &text) {
            if (type == QtWarningMsg)
                warnings.append({QByteArray(context.category), text});
        });
    agent.calls.clear();
    post->delegate()->publishPostDidFailWithError(post, error);
    qInstallMessageHandler(previous);
    QCOMPARE(warnings, (QList<std::pair<QByteArray, QString>>{
                           {"zd.publish",
                            u"Publish failed with error: Error Domain=Upload Code=7 \"boom\""_s}}));
    QCOMPARE(agent.calls, QStringList{u"inProgress:0"_s});
    QCOMPARE(sheet.endings.last(), std::optional(error));
}

void tst_PublishAgent::aSecondFormIsAFault()
{
    if (inDeathChild()) {
        TestAuthenticator auth;
        RecordingAgent agent(&auth);
        agent.adoptForm(ZDPublishViewController::create<TestForm>(&auth, FormOptions{}));
        agent.navigationController();
        return;
    }
    const DeathOutcome outcome = runDeathChild("aSecondFormIsAFault");
    QVERIFY2(
        diedSaying(outcome, {"!_publishViewController", "ZDPublishAgent::navigationController"}),
        outcome.stderrText.constData());
}

void tst_PublishAgent::estimatesBeyond32BitsSaturateAndShowAsALeast_data()
{
    QTest::addColumn<qint64>("estimate");
    QTest::addColumn<qint32>("size");
    QTest::addColumn<QString>("shown");
    constexpr qint64 GiB = 1024LL * 1024 * 1024;
    QTest::newRow("12 MiB") << 12 * 1024 * 1024LL << 12 * 1024 * 1024
                            << L("SIZE_FORMAT_PARENS").arg(u"12.6 MB"_s);
    QTest::newRow("just under 2 GiB")
        << 2 * GiB - 2 << qint32(2 * GiB - 2) << L("SIZE_FORMAT_PARENS").arg(u"2.1 GB"_s);
    QTest::newRow("3 GiB") << 3 * GiB << std::numeric_limits<qint32>::max()
                           << L("SIZE_OR_MORE_FORMAT_PARENS").arg(u"2.1 GB"_s);
    QTest::newRow("5 GiB, which wraps to 1 GiB")
        << 5 * GiB << std::numeric_limits<qint32>::max()
        << L("SIZE_OR_MORE_FORMAT_PARENS").arg(u"2.1 GB"_s);
}

void tst_PublishAgent::estimatesBeyond32BitsSaturateAndShowAsALeast()
{
    QFETCH(qint64, estimate);
    QFETCH(qint32, size);
    QFETCH(QString, shown);
    QLocale::setDefault(QLocale::c());
    TestAuthenticator auth;
    auth.setSignedIn(u"Ann"_s);
    RecordingAgent agent(&auth);
    agent.hdBytes = estimate;
    agent.sdBytes = estimate;
    TestForm *form = agent.shownForm();
    QVERIFY(form);
    QCOMPARE(form->SDSize(), size);
    QCOMPARE(form->HDSize(), size);
    QCOMPARE(form->optionCell(0)->sizeLabel()->text(), shown);
    QVERIFY(!shown.isEmpty());
    QLocale::setDefault(QLocale::system());
}

QTEST_MAIN(tst_PublishAgent)
#include "tst_publishagent.moc"
