#include "TestSupport.h"

#include "net/JSONHTTPRequest.h"
#include "net/ZDResumableUpload.h"
#include "net/ZDURLRequest.h"
#include "publish/ZDPublishPost.h"
#include "resources/ZDLocalizedString.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {

class ManualClock : public ZDUploadClock
{
public:
    qint64 msecsNow() const override { return now; }
    std::shared_ptr<void> callAfter(qint64, std::function<void()>) override { return nullptr; }
    qint64 now = 0;
};

// A job whose helpers the test drives directly.
class Job : public ZDPublishPost
{
public:
    using ZDPublishPost::_failWithError;
    using ZDPublishPost::_relayProgress;
    using ZDPublishPost::_setPhase;
    using ZDPublishPost::_succeed;
    using ZDPublishPost::uploadRelay;
    using ZDPublishPost::ZDPublishPost;
};

class Listener : public ZDPublishPostDelegate
{
public:
    void publishPostDidFailWithError(ZDPublishPost *post, const ZDError &failure) override
    {
        ++failures;
        error = failure;
        if (destroyOnEnd)
            delete post;
    }
    void publishPostSucceeded(ZDPublishPost *post) override
    {
        ++successes;
        if (destroyOnEnd)
            delete post;
    }
    void publishPostHasWrittenBytesExpectsToWrite(ZDPublishPost *, qint64 written,
                                                  qint64 expected) override
    {
        counts.append({written, expected});
    }
    void publishPostDidUpdateProgress(ZDPublishPost *, const ZDPublishProgress &progress) override
    {
        updates.append(progress);
    }
    int successes = 0;
    int failures = 0;
    ZDError error;
    bool destroyOnEnd = false;
    QList<std::pair<qint64, qint64>> counts;
    QList<ZDPublishProgress> updates;
};

ZDError badStatus(int status)
{
    return ZDError(JSONHTTPRequestErrorDomain, JSONHTTPRequestErrorBadStatus,
                   {{ZDHTTPResponseKey, QVariant::fromValue(ZDHTTPResponse(QUrl(), status, {}))}});
}

} // namespace

class tst_PublishPost : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void classifiesErrorsSoAHostCanAct_data();
    void classifiesErrorsSoAHostCanAct();
    void relaysAnUploadsProgressRetriesAndOutcome();
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

void tst_PublishPost::relaysAnUploadsProgressRetriesAndOutcome()
{
    Listener listener;
    Job job(&listener);
    auto clock = std::make_shared<ManualClock>();
    job.setClock(clock);
    ZDResumableUploadDelegate *relay = job.uploadRelay();
    relay->uploadHasSentBytes(nullptr, 1000, 4000);
    relay->uploadWillRetry(nullptr, badStatus(503), 2000, 1000);
    relay->uploadDidResume(nullptr, 800);
    relay->uploadHasSentBytes(nullptr, 4000, 4000);
    relay->uploadDidFinish(nullptr, QVariantMap());

    // The host's counts arrive unchanged, as before.
    QCOMPARE(listener.counts, (QList<std::pair<qint64, qint64>>{{1000, 4000}, {4000, 4000}}));
    QList<ZDPublishPhase> phases;
    for (const ZDPublishProgress &update : std::as_const(listener.updates))
        phases.append(update.phase);
    QCOMPARE(phases,
             (QList<ZDPublishPhase>{ZDPublishPhase::Sending, ZDPublishPhase::WaitingToRetry,
                                    ZDPublishPhase::Resuming, ZDPublishPhase::ServerProcessing}));
    const ZDPublishProgress &waiting = listener.updates.at(1);
    QCOMPARE(waiting.retryInMsecs, 2000);
    QCOMPARE(ZDPublishErrorKindForError(waiting.retryReason), ZDPublishErrorKind::ServiceFailure);
    QCOMPARE(listener.updates.at(2).written, 800);
    QCOMPARE(listener.successes, 1);

    // A failing upload ends the job with the classified error.
    Listener other;
    Job failing(&other);
    failing.uploadRelay()->uploadDidFailWithError(nullptr, badStatus(401));
    QCOMPARE(other.failures, 1);
    QCOMPARE(ZDPublishErrorKindForError(other.error), ZDPublishErrorKind::SignInAgain);
}

void tst_PublishPost::smoothsTheRateSoTheEtaDoesNotJump()
{
    Listener listener;
    Job job(&listener);
    auto clock = std::make_shared<ManualClock>();
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
    listener.destroyOnEnd = true;
    auto *job = new Job(&listener);
    job->_relayProgress(10, 10);
    job->_succeed(); // the delegate destroys the job inside; nothing touches it after
    QCOMPARE(listener.successes, 1);

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
    QVERIFY(late.counts.isEmpty());
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
