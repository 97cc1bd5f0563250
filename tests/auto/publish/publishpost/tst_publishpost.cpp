#include "TestSupport.h"

#include "net/JSONHTTPRequest.h"
#include "net/ZDResumableUpload.h"
#include "net/ZDURLRequest.h"
#include "publish/ZDPublishPost.h"
#include "resources/ZDLocalizedString.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {

// Everything a job tells its delegate, in order, as lines of a log.
class Listener : public ZDPublishPostDelegate
{
public:
    void publishPostDidFailWithError(ZDPublishPost *post, const ZDError &failure) override
    {
        note(post, u"failed %1"_s.arg(failure.code()));
    }
    void publishPostSucceeded(ZDPublishPost *post) override { note(post, u"succeeded"_s); }
    void publishPostHasWrittenBytesExpectsToWrite(ZDPublishPost *post, qint64 written,
                                                  qint64 expected) override
    {
        note(post, u"count %1/%2"_s.arg(written).arg(expected));
    }
    void publishPostDidUpdateProgress(ZDPublishPost *post,
                                      const ZDPublishProgress &progress) override
    {
        static const QStringList names{u"Preparing"_s, u"Sending"_s, u"WaitingToRetry"_s,
                                       u"Resuming"_s, u"ServerProcessing"_s};
        QString line = u"%1 %2"_s.arg(names.at(int(progress.phase))).arg(progress.written);
        if (progress.phase == ZDPublishPhase::WaitingToRetry)
            line += u" in %1 kind %2"_s.arg(progress.retryInMsecs).arg(progress.retryReason.code());
        note(post, line);
    }
    void note(ZDPublishPost *post, const QString &line)
    {
        log.append(line);
        if (line == destroyOn)
            delete post;
    }
    QString destroyOn; // the line on which the job is destroyed
    QStringList log;
};

// A job whose helpers the test drives directly; its failure hook notes the
// engine's error as it arrived before the default handles it.
class Job : public ZDPublishPost
{
public:
    using ZDPublishPost::_failWithError;
    using ZDPublishPost::_relayProgress;
    using ZDPublishPost::_setPhase;
    using ZDPublishPost::_succeed;
    using ZDPublishPost::uploadRelay;
    using ZDPublishPost::ZDPublishPost;

protected:
    void _uploadDidFail(const ZDError &error) override
    {
        static_cast<Listener *>(delegate())->log.append(u"hook "_s + error.domain());
        ZDPublishPost::_uploadDidFail(error);
    }
};

// One call of the upload engine into the relay; Loop runs the event loop's due calls.
struct EngineCall
{
    enum Kind { Sent, Retry, Resume, Finish, Fail, Loop } kind;
    qint64 bytes = 0;
    qint64 other = 0; // Sent: the total; Retry: the wait
    ZDError error;
};
using EngineCalls = QList<EngineCall>;

EngineCall sent(qint64 bytes, qint64 total)
{
    return {EngineCall::Sent, bytes, total, {}};
}
EngineCall retry(const ZDError &reason, qint64 waitMsecs, qint64 confirmed)
{
    return {EngineCall::Retry, confirmed, waitMsecs, reason};
}
EngineCall resumed(qint64 offset)
{
    return {EngineCall::Resume, offset, 0, {}};
}
EngineCall failed(const ZDError &error)
{
    return {EngineCall::Fail, 0, 0, error};
}

ZDError badStatus(int status)
{
    return ZDError(JSONHTTPRequestErrorDomain, JSONHTTPRequestErrorBadStatus,
                   {{ZDHTTPResponseKey, QVariant::fromValue(ZDHTTPResponse(QUrl(), status, {}))}});
}

} // namespace

Q_DECLARE_METATYPE(EngineCall)

class tst_PublishPost : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void classifiesErrorsSoAHostCanAct_data();
    void classifiesErrorsSoAHostCanAct();
    void relaysTheEngineInTheOrderItsEventsHappen_data();
    void relaysTheEngineInTheOrderItsEventsHappen();
    void smoothsTheRateSoTheEtaDoesNotJump();
    void endsExactlyOnceAndMayBeDestroyedByItsDelegate();
    void aSecondEndingIsAFault();
};

void tst_PublishPost::classifiesErrorsSoAHostCanAct_data()
{
    QTest::addColumn<ZDError>("error");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<int>("kind");
    QTest::addColumn<QString>("field");
    QTest::newRow("401") << badStatus(401) << QByteArray() << int(ZDPublishErrorKind::SignInAgain)
                         << QString();
    QTest::newRow("credentials not renewable")
        << ZDError(ZDResumableUploadErrorDomain, ZDResumableUploadErrorCredentialsUnavailable)
        << QByteArray() << int(ZDPublishErrorKind::SignInAgain) << QString();
    QTest::newRow("429") << badStatus(429) << QByteArray()
                         << int(ZDPublishErrorKind::QuotaOrRateLimit) << QString();
    QTest::newRow("403 naming a quota")
        << badStatus(403) << QByteArray(R"({"error":{"reason":"quotaExceeded"}})")
        << int(ZDPublishErrorKind::QuotaOrRateLimit) << QString();
    QTest::newRow("400 naming its field")
        << badStatus(400) << QByteArray(R"({"error":{"field":"title","message":"too long"}})")
        << int(ZDPublishErrorKind::InvalidField) << u"title"_s;
    QTest::newRow("422 with a param") << badStatus(422) << QByteArray(R"({"param":"tags"})")
                                      << int(ZDPublishErrorKind::InvalidField) << u"tags"_s;
    QTest::newRow("400 naming no field")
        << badStatus(400) << QByteArray(R"({"error":"bad request"})")
        << int(ZDPublishErrorKind::InvalidField) << QString();
    QTest::newRow("413") << badStatus(413) << QByteArray() << int(ZDPublishErrorKind::FileTooLarge)
                         << QString();
    QTest::newRow("file changed") << ZDError(ZDResumableUploadErrorDomain,
                                             ZDResumableUploadErrorFileChanged)
                                  << QByteArray()
                                  << int(ZDPublishErrorKind::FileChangedOrUnreadable) << QString();
    QTest::newRow("file shrank while sent")
        << ZDError(ZDURLErrorDomain, ZDURLErrorBodyFileUnreadable) << QByteArray()
        << int(ZDPublishErrorKind::FileChangedOrUnreadable) << QString();
    QTest::newRow("connection reset") << ZDError(ZDCurlErrorDomain, 56) << QByteArray()
                                      << int(ZDPublishErrorKind::Network) << QString();
    QTest::newRow("503") << badStatus(503) << QByteArray()
                         << int(ZDPublishErrorKind::ServiceFailure) << QString();
    QTest::newRow("protocol violation")
        << ZDError(ZDResumableUploadErrorDomain, ZDResumableUploadErrorProtocolViolation)
        << QByteArray() << int(ZDPublishErrorKind::ServiceFailure) << QString();
    QTest::newRow("already classified")
        << ZDPublishErrorWithKind(ZDPublishErrorKind::Cancelled) << QByteArray()
        << int(ZDPublishErrorKind::Cancelled) << QString();
}

void tst_PublishPost::classifiesErrorsSoAHostCanAct()
{
    QFETCH(ZDError, error);
    QFETCH(QByteArray, body);
    QFETCH(int, kind);
    QFETCH(QString, field);
    const ZDError classified = ZDPublishErrorWithError(error, body);
    QCOMPARE(classified.domain(), ZDPublishErrorDomain);
    QCOMPARE(classified.code(), kind);
    QCOMPARE(ZDPublishErrorKindForError(classified), ZDPublishErrorKind(kind));
    QCOMPARE(classified.userInfo().value(u"field"_s).toString(), field);
    const QString sentence = classified.localizedDescription();
    QVERIFY(!sentence.isEmpty() && !sentence.contains(u"%1"_s));
    if (!field.isEmpty())
        QVERIFY(sentence.contains(field));
    else if (ZDPublishErrorKind(kind) == ZDPublishErrorKind::InvalidField)
        QCOMPARE(sentence, ZDLocalizedString(u"PUBLISH_ERROR_INVALID_REQUEST"_s)); // names none
    if (error.domain() != ZDPublishErrorDomain) {
        QCOMPARE(classified.userInfo().value(ZDUnderlyingErrorKey).value<ZDError>().domain(),
                 error.domain());
        QCOMPARE(classified.userInfo().value(ZDResponseBodyKey).toByteArray(), body);
    }
    // Every sentence exists in both languages, and they differ.
    const QString german = ZDLocalizedString(
        u"PUBLISH_ERROR_"_s + QStringList{u""_s, u"SIGN_IN_AGAIN"_s, u"QUOTA_OR_RATE_LIMIT"_s,
                                          u"INVALID_FIELD"_s, u"FILE_TOO_LARGE"_s,
                                          u"FILE_CHANGED_OR_UNREADABLE"_s, u"NETWORK"_s,
                                          u"SERVICE_FAILURE"_s, u"CANCELLED"_s}
                                  .at(kind),
        QLocale(QLocale::German));
    QVERIFY(!german.isEmpty());
    QVERIFY(german != ZDLocalizedString(u"PUBLISH_ERROR_NETWORK"_s, QLocale(QLocale::English)));
}

void tst_PublishPost::relaysTheEngineInTheOrderItsEventsHappen_data()
{
    QTest::addColumn<EngineCalls>("calls");
    QTest::addColumn<QString>("destroyOn");
    QTest::addColumn<QString>("reports");
    const ZDError reset(ZDCurlErrorDomain, 56);
    const EngineCall loop{EngineCall::Loop, 0, 0, {}};
    const EngineCall finished{EngineCall::Finish, 0, 0, {}};
    // Kinds: 1 SignInAgain, 6 Network, 7 ServiceFailure. The count goes back to
    // what the service confirmed; a resume where it already was tells none.
    QTest::newRow("cut, resumed where the service's copy ends, finished")
        << EngineCalls{loop,
                       sent(1000, 4000),
                       sent(3000, 4000),
                       retry(badStatus(503), 2000, 1000),
                       resumed(1000),
                       sent(4000, 4000),
                       finished}
        << QString()
        << u"Preparing 0; count 1000/4000; Sending 1000; count 3000/4000; Sending 3000; "
           u"WaitingToRetry 1000 in 2000 kind 7; count 1000/4000; Resuming 1000; "
           u"count 4000/4000; ServerProcessing 4000; succeeded"_s;
    QTest::newRow("the service kept bytes of the lost request, then refused")
        << EngineCalls{sent(2000, 4000), loop, retry(reset, 0, 1000), resumed(1500),
                       failed(badStatus(401))}
        << QString()
        << u"count 2000/4000; Sending 2000; WaitingToRetry 1000 in 0 kind 6; count 1000/4000; "
           u"Resuming 1500; count 1500/4000; hook "_s +
               JSONHTTPRequestErrorDomain + u"; failed 1"_s;
    QTest::newRow("offline before a byte, then retries exhausted")
        << EngineCalls{retry(reset, -1, 0), loop, failed(reset)} << QString()
        << u"WaitingToRetry 0 in -1 kind 6; hook "_s + ZDCurlErrorDomain + u"; failed 6"_s;
    QTest::newRow("destroyed while told of the retry")
        << EngineCalls{sent(3000, 4000), retry(badStatus(503), 2000, 1000)}
        << u"WaitingToRetry 1000 in 2000 kind 7"_s
        << u"count 3000/4000; Sending 3000; WaitingToRetry 1000 in 2000 kind 7"_s;
    QTest::newRow("destroyed while told of the count")
        << EngineCalls{sent(3000, 4000)} << u"count 3000/4000"_s << u"count 3000/4000"_s;
}

void tst_PublishPost::relaysTheEngineInTheOrderItsEventsHappen()
{
    QFETCH(EngineCalls, calls);
    QFETCH(QString, destroyOn);
    QFETCH(QString, reports);
    Listener listener;
    listener.destroyOn = destroyOn;
    auto clock = std::make_shared<FakeUploadClock>();
    auto *job = new Job(&listener);
    job->setClock(clock);
    const ZDWeakRef<ZDResumableUploadDelegate> relay(job->uploadRelay());
    QVERIFY(listener.log.isEmpty()); // nothing from inside the hand-out
    for (const EngineCall &call : std::as_const(calls)) {
        QVERIFY(relay);
        switch (call.kind) {
        case EngineCall::Sent:
            relay.get()->uploadHasSentBytes(nullptr, call.bytes, call.other);
            break;
        case EngineCall::Retry:
            relay.get()->uploadWillRetry(nullptr, call.error, call.other, call.bytes);
            break;
        case EngineCall::Resume:
            relay.get()->uploadDidResume(nullptr, call.bytes);
            break;
        case EngineCall::Finish:
            relay.get()->uploadDidFinish(nullptr, QVariantMap());
            break;
        case EngineCall::Fail:
            relay.get()->uploadDidFailWithError(nullptr, call.error);
            break;
        case EngineCall::Loop:
            QCoreApplication::processEvents(); // the clock's due calls
            break;
        }
    }
    QCOMPARE(listener.log.join(u"; "), reports);
    if (relay)
        delete job;
}

void tst_PublishPost::smoothsTheRateSoTheEtaDoesNotJump()
{
    Listener listener;
    Job job(&listener);
    auto clock = std::make_shared<FakeUploadClock>();
    job.setClock(clock);
    const qint64 total = 100'000'000;
    job._relayProgress(0, total);
    QCOMPARE(job.progress().etaMsecs, -1); // nothing measured yet
    // 1 MB/s for ten seconds, then one burst of 20 MB in a second.
    qint64 written = 0;
    for (int second = 1; second <= 10; ++second) {
        clock->now = second * 1000;
        written += 1'000'000;
        job._relayProgress(written, total);
    }
    QVERIFY(qAbs(job.progress().bytesPerSecond - 1e6) < 1e5);
    const qint64 etaBefore = job.progress().etaMsecs;
    clock->now += 1000;
    written += 20'000'000;
    job._relayProgress(written, total);
    // The instant rate rose twentyfold; the smoothed one by far less.
    QVERIFY(job.progress().bytesPerSecond < 6e6);
    // The ETA shortens with the bytes gone, but stays several times the
    // 3.3 s the burst alone would promise.
    QVERIFY(job.progress().etaMsecs < etaBefore);
    QVERIFY(job.progress().etaMsecs > 10'000);
}

void tst_PublishPost::endsExactlyOnceAndMayBeDestroyedByItsDelegate()
{
    Listener listener;
    listener.destroyOn = u"succeeded"_s;
    auto *job = new Job(&listener);
    job->_relayProgress(10, 10);
    job->_succeed(); // the delegate destroys the job inside; nothing touches it after
    QCOMPARE(listener.log.last(), u"succeeded"_s);

    // A job whose delegate is gone reports nowhere, and still ends once.
    auto gone = std::make_unique<Listener>();
    Job orphan(gone.get());
    gone.reset();
    orphan._failWithError(badStatus(500));
    QVERIFY(orphan.hasEnded());
    // Progress after the end is dropped.
    Listener late;
    Job ended(&late);
    ended._succeed();
    ended._relayProgress(5, 10);
    QCOMPARE(late.log, QStringList{u"succeeded"_s});
}

void tst_PublishPost::aSecondEndingIsAFault()
{
    if (inDeathChild()) {
        Listener listener;
        Job job(&listener);
        job._succeed();
        job._failWithError(badStatus(500));
        return;
    }
    const DeathOutcome outcome = runDeathChild("aSecondEndingIsAFault");
    QVERIFY2(diedSaying(outcome, {"ZDPublishPost::_failWithError"}),
             outcome.stderrText.constData());
}

QTEST_GUILESS_MAIN(tst_PublishPost)
#include "tst_publishpost.moc"
