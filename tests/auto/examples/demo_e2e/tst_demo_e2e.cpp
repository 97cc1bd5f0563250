// The main job end to end: the demo host, driven by its scripted user, publishes
// through the example plug-in to the demo video service, and what the service
// stored is compared with what was typed and with the file.

#include "ChildService.h"
#include "TestSupport.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <signal.h>

using namespace Qt::StringLiterals;

namespace {

// Exit statuses of the demo host.
constexpr int kPublished = 0;
constexpr int kUsage = 1;
constexpr int kFailed = 2;
constexpr int kCancelled = 3;
constexpr int kKilled = -9; // HostRun::exitCode of a host killed by the test

QString md5Of(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    QCryptographicHash hash(QCryptographicHash::Md5);
    hash.addData(&file);
    return QString::fromLatin1(hash.result().toHex());
}

// The demo service, its data in a directory of its own or, to outlive it, of
// the test's.
class Service
{
public:
    explicit Service(const QString &dataDir = {})
        : m_dataDir(dataDir.isEmpty() ? m_ownData.path() : dataDir)
    {}

    // With `keepLog`, the service logs every request and log() reads the lines.
    // Port 0 lets it choose one.
    bool start(const QStringList &extra = {}, bool keepLog = false, int port = 0)
    {
        const QString problem =
            m_child.start(qEnvironmentVariable("ZD_DEMO_SERVICE"),
                          QStringList{u"--port"_s, QString::number(port), u"--data"_s, m_dataDir} +
                              (keepLog ? QStringList() : QStringList{u"--quiet"_s}) + extra,
                          keepLog ? QProcess::SeparateChannels : QProcess::ForwardedErrorChannel);
        if (!problem.isEmpty())
            qWarning("%s", qPrintable(problem));
        return problem.isEmpty();
    }
    void stop() { m_child.stop(); }
    bool waitForExit(int msecs = 30000) { return m_child.process().waitForFinished(msecs); }
    int exitCode() { return m_child.process().exitCode(); }
    QString log() { return QString::fromUtf8(m_child.process().readAllStandardError()); }
    QString url() const { return m_child.url().toString(); }
    int port() const { return m_child.port(); }

    QStringList published() const
    {
        return QDir(m_dataDir + u"/videos"_s).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    }
    QStringList incoming() const
    {
        return QDir(m_dataDir + u"/incoming"_s).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
    }
    QStringList sessions() const
    {
        return QDir(m_dataDir + u"/sessions"_s).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
    }
    QJsonObject meta(const QString &id) const
    {
        QFile file(m_dataDir + u"/videos/"_s + id + u"/meta.json"_s);
        if (!file.open(QIODevice::ReadOnly))
            return {};
        return QJsonDocument::fromJson(file.readAll()).object();
    }
    QString storedVideo(const QString &id) const
    {
        const QDir dir(m_dataDir + u"/videos/"_s + id);
        const QStringList videos = dir.entryList({u"video*"_s}, QDir::Files);
        return videos.isEmpty() ? QString() : dir.filePath(videos.first());
    }

private:
    QTemporaryDir m_ownData;
    QString m_dataDir;
    ChildService m_child;
};

struct HostRun
{
    int exitCode = -1;
    QString output;
};

// Starts a scripted host on `video` (none: a run that resumes), its output
// and errors in one channel.
void startHost(QProcess &host, const Service &service, const QString &video,
               const QStringList &extra)
{
    host.setProgram(qEnvironmentVariable("ZD_DEMO_HOST"));
    host.setArguments(
        (video.isEmpty() ? QStringList() : QStringList{video}) +
        QStringList{u"--scripted"_s, u"--no-keyring"_s, u"--service"_s, service.url()} + extra);
    host.setProcessChannelMode(QProcess::MergedChannels);
    host.start();
}

HostRun runHost(const Service &service, const QString &video, const QStringList &extra)
{
    QProcess host;
    startHost(host, service, video, extra);
    HostRun run;
    if (!host.waitForFinished(300000)) {
        host.kill();
        host.waitForFinished();
    }
    run.exitCode = host.exitStatus() == QProcess::NormalExit ? host.exitCode() : -1;
    run.output = QString::fromUtf8(host.readAll());
    return run;
}

// Starts the host publishing `video` and kills it with SIGKILL, so that nothing
// is cleaned up, `msecs` after its progress bar first moved (its upload session
// is open then). exitCode is kKilled unless it ended on its own before.
HostRun killHostMidUpload(const Service &service, const QString &video, const QStringList &extra,
                          int msecs)
{
    QProcess host;
    startHost(host, service, video, extra);
    QByteArray out;
    static const QRegularExpression bar(u"\\] +\\d+%"_s);
    const QDeadlineTimer patience(120000);
    while (!QString::fromUtf8(out).contains(bar) && host.state() != QProcess::NotRunning &&
           !patience.hasExpired()) {
        host.waitForReadyRead(1000);
        out += host.readAll();
    }
    HostRun run;
    if (!host.waitForFinished(msecs)) {
        ::kill(pid_t(host.processId()), SIGKILL);
        host.waitForFinished(30000);
        run.exitCode = kKilled;
    } else {
        run.exitCode = host.exitCode();
    }
    run.output = QString::fromUtf8(out + host.readAll());
    return run;
}

QStringList journalEntries(const QString &directory)
{
    return QDir(directory).entryList({u"*.json"_s}, QDir::Files);
}

// Every request that opened an upload session, from the service's log.
qsizetype sessionsOpened(const QString &log)
{
    static const QRegularExpression opened(u"^POST /api/uploads \\d+$"_s,
                                           QRegularExpression::MultilineOption);
    return log.count(opened);
}

} // namespace

class tst_DemoE2E : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(QFile::exists(qEnvironmentVariable("ZD_DEMO_SERVICE")), "ZD_DEMO_SERVICE");
        QVERIFY2(QFile::exists(qEnvironmentVariable("ZD_DEMO_HOST")), "ZD_DEMO_HOST");
        QVERIFY(m_files.isValid());
    }

    void publishedVideoArrivesIntactWithWhatWasTyped_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<QString>("title");
        QTest::addColumn<QString>("access");
        const QString sea = u"Abend am Meer \u2014 \u6D77"_s;
        QTest::newRow("in memory")
            << QStringList{u"--upload-mode"_s, u"memory"_s} << sea << u"private"_s;
        QTest::newRow("streamed from disk")
            << QStringList{u"--upload-mode"_s, u"streamed"_s} << sea << u"private"_s;
        QTest::newRow("OAuth 2.0 sign-in")
            << QStringList{u"--upload-mode"_s, u"streamed"_s, u"--oauth2"_s} << sea << u"private"_s;
        QTest::newRow("by keyboard alone")
            << QStringList{u"--keyboard-only"_s}
            << u"By keys \u2014 \u0645\u0641\u0627\u062A\u064A\u062D"_s << u"unlisted"_s;
    }
    void publishedVideoArrivesIntactWithWhatWasTyped()
    {
        QFETCH(QStringList, options);
        QFETCH(QString, title);
        QFETCH(QString, access);
        Service service;
        QVERIFY(service.start());
        const QString video = randomVideo(u"holiday.mp4"_s, 3 * 1024 * 1024 + 17);

        // The scripted user tries a wrong password first, then the right one.
        const HostRun run =
            runHost(service, video,
                    QStringList{u"--title"_s, title, u"--description"_s,
                                u"Filmed from the pier, ten minutes before dark."_s, u"--tags"_s,
                                u"sea,sunset,Z\u00FCrich"_s, u"--category"_s, u"Pets & Animals"_s,
                                u"--access"_s, access, u"--hd"_s} +
                        options);
        QVERIFY2(run.exitCode == kPublished, qPrintable(run.output));
        // By keyboard, what a screen reader hears; else what the eye reads.
        const bool byKeyboard = options.contains(u"--keyboard-only"_s);
        QVERIFY2(run.output.contains(byKeyboard ? u"hears \"Sign-In Failed\""_s
                                                : u"reads \"Sign-In Failed\""_s),
                 qPrintable(run.output));
        if (byKeyboard)
            QVERIFY2(run.output.contains(u"reached the result page with 0 mouse events"_s),
                     qPrintable(run.output));
        // The demo's own OAuth 1.0a sign-in names the refusal in its next dialog;
        // the library's OAuth 2.0 password dialog asks again as it is.
        if (!byKeyboard && !options.contains(u"--oauth2"_s))
            QVERIFY2(run.output.contains(u"did not accept that user name and password"_s),
                     qPrintable(run.output));
        QVERIFY2(run.output.contains(u"no longer answers"_s) == false, qPrintable(run.output));

        const QStringList published = service.published();
        QCOMPARE(published.size(), 1);
        const QJsonObject meta = service.meta(published.first());
        QCOMPARE(meta.value(u"title").toString(), title);
        QCOMPARE(meta.value(u"description").toString(),
                 u"Filmed from the pier, ten minutes before dark."_s);
        QCOMPARE(meta.value(u"tags").toArray().toVariantList(),
                 QVariantList({u"sea"_s, u"sunset"_s, u"Z\u00FCrich"_s}));
        QCOMPARE(meta.value(u"category").toString(), u"animals"_s);
        QCOMPARE(meta.value(u"access").toString(), access);
        QCOMPARE(meta.value(u"account").toString(), u"demo"_s);
        QCOMPARE(meta.value(u"filename").toString(), u"holiday.mp4"_s);
        QCOMPARE(md5Of(service.storedVideo(published.first())), md5Of(video));
        QCOMPARE(meta.value(u"md5").toString(), md5Of(video));
        QVERIFY(service.incoming().isEmpty());
        QVERIFY2(run.output.contains(service.url() + u"videos/"_s + published.first()),
                 qPrintable(run.output));
    }

    void aResumableUploadThroughCutsArrivesWholeAndSaysWhereItResumed_data()
    {
        QTest::addColumn<QString>("cutEvery");
        QTest::addColumn<qint64>("size");
        // 5 MiB through a cut every 1.5 MB: three of them, each resumed from
        // the bytes the service kept.
        QTest::newRow("between chunks") << u"1500000"_s << qint64(5 * 1024 * 1024 + 11);
        // Three cuts inside the first chunk (1 MiB): before the service had
        // confirmed anything.
        QTest::newRow("inside the first chunk") << u"300000"_s << qint64(1024 * 1024 + 11);
    }
    void aResumableUploadThroughCutsArrivesWholeAndSaysWhereItResumed()
    {
        QFETCH(QString, cutEvery);
        QFETCH(qint64, size);
        Service service;
        QVERIFY(service.start({u"--cut-every-bytes"_s, cutEvery}));
        const QString video = randomVideo(u"flaky.mp4"_s, size);
        const HostRun run = runHost(service, video,
                                    {u"--no-wrong-password"_s, u"--title"_s, u"Flaky"_s,
                                     u"--category"_s, QString(), u"--tags"_s, QString()});
        QVERIFY2(run.exitCode == kPublished, qPrintable(run.output));
        static const QRegularExpression lost(
            u"connection lost at ([0-9.]+ [kKM]i?B), retrying (?:now|in \\d+ s) \\.\\.\\. resumed at ([0-9.]+ [kKM]i?B)"_s);
        auto matches = lost.globalMatch(run.output);
        int cuts = 0;
        for (; matches.hasNext(); ++cuts)
            matches.next();
        QVERIFY2(cuts == 3, qPrintable(run.output));
        // Where a cut fell, in bytes that went out: never a confirmed 0.
        QVERIFY2(!run.output.contains(u"lost at 0 bytes"_s), qPrintable(run.output));
        const QStringList published = service.published();
        QCOMPARE(published.size(), 1);
        QCOMPARE(md5Of(service.storedVideo(published.first())), md5Of(video));
        QCOMPARE(service.meta(published.first()).value(u"md5").toString(), md5Of(video));
    }

    // A host killed at a random point of its upload leaves its journal entry;
    // the next host lists it, resumes it on its session and publishes the
    // video once, whole, with what was typed in the first run.
    void anUploadKilledMidwayIsResumedByTheNextRunAndPublishedOnce_data()
    {
        QTest::addColumn<int>("earliest");
        QTest::addColumn<int>("latest");
        QTest::addColumn<bool>("serviceMoves");
        QTest::newRow("as sending begins") << 0 << 400 << false;
        QTest::newRow("in the first stretch") << 500 << 1300 << false;
        // The service restarts on another port between the runs, as
        // tools/run-demo's does: its sign-ins and the session are still there.
        QTest::newRow("after a cut or two, service moved") << 1400 << 2400 << true;
    }
    void anUploadKilledMidwayIsResumedByTheNextRunAndPublishedOnce()
    {
        QFETCH(int, earliest);
        QFETCH(int, latest);
        QFETCH(bool, serviceMoves);
        QTemporaryDir data;
        QTemporaryDir journal;
        // Sending takes about 3.5 s: 1.5 s at 2 MB/s and two cuts' waits.
        const QStringList slow{u"--throttle"_s, u"2000000"_s, u"--cut-every-bytes"_s, u"1200000"_s};
        auto service = std::make_unique<Service>(data.path());
        QVERIFY(service->start(slow, true));
        const QString video = randomVideo(u"killed.mp4"_s, 3 * 1000 * 1000 + 13);
        const int killAfter = int(QRandomGenerator::global()->bounded(earliest, latest));
        const QStringList common{u"--no-wrong-password"_s, u"--journal"_s, journal.path()};
        const HostRun killed = killHostMidUpload(
            *service, video,
            common + QStringList{u"--title"_s, u"Killed midway"_s, u"--description"_s,
                                 u"Cut short by kill -9."_s, u"--tags"_s, u"kill,resume"_s,
                                 u"--category"_s, QString(), u"--access"_s, u"private"_s},
            killAfter);
        const QString context =
            u"killed %1 ms after sending began\n"_s.arg(killAfter) + killed.output;
        QVERIFY2(killed.exitCode == kKilled, qPrintable(context));
        QCOMPARE(journalEntries(journal.path()).size(), 1);
        QVERIFY(service->published().isEmpty());
        QString log;
        if (serviceMoves) {
            service->stop();
            log = service->log();
            const QString before = service->url();
            service = std::make_unique<Service>(data.path());
            QVERIFY(service->start(slow, true));
            QVERIFY(service->url() != before);
        }

        const HostRun resumed =
            runHost(*service, QString(), common + QStringList{u"--resume-interrupted"_s});
        const QString both = context + u"\n--- the next run ---\n"_s + resumed.output;
        QVERIFY2(resumed.exitCode == kPublished, qPrintable(both));
        QVERIFY2(resumed.output.contains(
                     u"Interrupted upload: \u201cKilled midway\u201d (killed.mp4, 3.0 MB): "_s),
                 qPrintable(both));
        QVERIFY2(resumed.output.contains(u"Resuming \u201cKilled midway\u201d"_s),
                 qPrintable(both));
        const QStringList published = service->published();
        QCOMPARE(published.size(), 1);
        QCOMPARE(md5Of(service->storedVideo(published.first())), md5Of(video));
        const QJsonObject meta = service->meta(published.first());
        QCOMPARE(meta.value(u"title").toString(), u"Killed midway"_s);
        QCOMPARE(meta.value(u"description").toString(), u"Cut short by kill -9."_s);
        QCOMPARE(meta.value(u"tags").toArray().toVariantList(),
                 QVariantList({u"kill"_s, u"resume"_s}));
        QCOMPARE(meta.value(u"access").toString(), u"private"_s);
        QVERIFY(journalEntries(journal.path()).isEmpty());
        service->stop();
        // Resumed on the session the first run opened, never started over.
        QCOMPARE(sessionsOpened(log + service->log()), 1);
    }

    // A run that is not told to resume asks in an alert, after the sign-in:
    // Resume publishes the interrupted video, Not Now keeps it in the journal.
    // A scripted run that is given no answer only lists it, as before.
    void anInterruptedUploadIsOfferedInAnAlertAndTheAnswerIsFollowed_data()
    {
        QTest::addColumn<QString>("answer");
        QTest::addColumn<bool>("byKeyboard");
        QTest::newRow("resume, clicked") << u"yes"_s << false;
        QTest::newRow("resume, by keyboard") << u"yes"_s << true;
        QTest::newRow("not now, by keyboard") << u"no"_s << true;
    }
    void anInterruptedUploadIsOfferedInAnAlertAndTheAnswerIsFollowed()
    {
        QFETCH(QString, answer);
        QFETCH(bool, byKeyboard);
        QTemporaryDir journal;
        Service service;
        QVERIFY(service.start({u"--throttle"_s, u"2000000"_s}));
        const QString video = randomVideo(u"offered.mp4"_s, 2 * 1000 * 1000 + 7);
        const QStringList common{u"--no-wrong-password"_s, u"--journal"_s, journal.path()};
        const HostRun killed = killHostMidUpload(
            service, video,
            common + QStringList{u"--title"_s, u"Offered again"_s, u"--category"_s, QString(),
                                 u"--tags"_s, QString()},
            200);
        QVERIFY2(killed.exitCode == kKilled, qPrintable(killed.output));
        QCOMPARE(journalEntries(journal.path()).size(), 1);

        if (answer == u"no") {
            // No answer given: listed on the terminal, no alert, the sheet as before.
            const HostRun listed =
                runHost(service, QString(), common + QStringList{u"--cancel-sheet"_s});
            QVERIFY2(listed.exitCode == kCancelled, qPrintable(listed.output));
            QVERIFY2(listed.output.contains(u"--resume-interrupted resumes it"_s),
                     qPrintable(listed.output));
            QVERIFY2(!listed.output.contains(u"Interrupted Upload\""_s), qPrintable(listed.output));
        }

        const QStringList how = byKeyboard ? QStringList{u"--keyboard-only"_s} : QStringList();
        const HostRun run =
            runHost(service, QString(), common + how + QStringList{u"--answer-resume"_s, answer});
        const QString both = killed.output + u"\n--- the next run ---\n"_s + run.output;
        QVERIFY2(run.output.contains(u"\"1 Interrupted Upload\""_s), qPrintable(both));
        if (byKeyboard)
            QVERIFY2(run.output.contains(u"with 0 mouse events"_s), qPrintable(both));
        if (answer == u"no") {
            QVERIFY2(run.exitCode == kCancelled, qPrintable(both));
            QVERIFY2(run.output.contains(u"stays in the journal"_s), qPrintable(both));
            QCOMPARE(journalEntries(journal.path()).size(), 1);
            QVERIFY(service.published().isEmpty());
            return;
        }
        QVERIFY2(run.exitCode == kPublished, qPrintable(both));
        QVERIFY2(run.output.contains(u"Resuming \u201cOffered again\u201d"_s), qPrintable(both));
        const QStringList published = service.published();
        QCOMPARE(published.size(), 1);
        QCOMPARE(md5Of(service.storedVideo(published.first())), md5Of(video));
        QCOMPARE(service.meta(published.first()).value(u"title").toString(), u"Offered again"_s);
        QVERIFY(journalEntries(journal.path()).isEmpty());
    }

    void aFileChangedBetweenRunsIsRefusedAndNotPublished()
    {
        QTemporaryDir journal;
        Service service;
        QVERIFY(service.start({u"--throttle"_s, u"1000000"_s}));
        const QString video = randomVideo(u"edited.mp4"_s, 3 * 1000 * 1000);
        const QStringList common{u"--no-wrong-password"_s, u"--journal"_s, journal.path()};
        const HostRun killed = killHostMidUpload(
            service, video,
            common + QStringList{u"--category"_s, QString(), u"--tags"_s, QString()}, 300);
        QVERIFY2(killed.exitCode == kKilled, qPrintable(killed.output));
        QCOMPARE(journalEntries(journal.path()).size(), 1);

        // Edited in place: same size and modification time, other first bytes.
        const QDateTime modified = QFileInfo(video).lastModified();
        QFile file(video);
        QVERIFY(file.open(QIODevice::ReadWrite));
        QVERIFY(file.write(QByteArray(4096, 'e')) == 4096);
        QVERIFY(file.flush());
        QVERIFY(file.setFileTime(modified, QFileDevice::FileModificationTime));
        file.close();
        QCOMPARE(QFileInfo(video).lastModified(), modified);

        const HostRun refused =
            runHost(service, QString(), common + QStringList{u"--resume-interrupted"_s});
        QVERIFY2(refused.exitCode == kFailed, qPrintable(refused.output));
        QVERIFY2(refused.output.contains(
                     u"Not Published: \"edited.mp4\" has changed since its upload was "
                     u"interrupted, so the upload was not resumed."_s),
                 qPrintable(refused.output));
        QVERIFY(service.published().isEmpty());
        // Dropped, not offered again.
        QVERIFY(journalEntries(journal.path()).isEmpty());
        const HostRun again =
            runHost(service, QString(), common + QStringList{u"--resume-interrupted"_s});
        QCOMPARE(again.exitCode, kPublished);
        QVERIFY2(again.output.contains(u"No interrupted uploads to resume."_s),
                 qPrintable(again.output));
    }

    // The service process goes away mid-upload and comes back on the same
    // port with its sessions and sign-ins: the upload waits, resumes without
    // a new sign-in and arrives whole.
    void aServiceRestartMidUploadStillEndsWithTheVideoWhole_data()
    {
        QTest::addColumn<QStringList>("signIn");
        QTest::newRow("OAuth 1.0a") << QStringList();
        QTest::newRow("OAuth 2.0")
            << QStringList{u"--oauth2"_s, u"--upload-mode"_s, u"resumable"_s};
    }
    void aServiceRestartMidUploadStillEndsWithTheVideoWhole()
    {
        QFETCH(QStringList, signIn);
        QTemporaryDir data;
        QTemporaryDir journal;
        auto service = std::make_unique<Service>(data.path());
        QVERIFY(service->start({u"--die-after-bytes"_s, u"1500000"_s}, true));
        const QString url = service->url();
        const QString video = randomVideo(u"restarted.mp4"_s, 3 * 1000 * 1000 + 5);

        QProcess host;
        startHost(host, *service, video,
                  QStringList{u"--no-wrong-password"_s, u"--journal"_s, journal.path(),
                              u"--category"_s, QString(), u"--tags"_s, QString()} +
                      signIn);
        QVERIFY(service->waitForExit(120000));
        QCOMPARE(service->exitCode(), 70); // went down as asked, mid-upload
        QString log = service->log();
        const int port = service->port();
        service = std::make_unique<Service>(data.path());
        QVERIFY(service->start({}, true, port));
        QCOMPARE(service->url(), url);

        QVERIFY(host.waitForFinished(120000));
        const QString output = QString::fromUtf8(host.readAll());
        QVERIFY2(host.exitStatus() == QProcess::NormalExit && host.exitCode() == kPublished,
                 qPrintable(output));
        QVERIFY2(output.contains(u"connection lost at "_s), qPrintable(output));
        QVERIFY2(output.contains(u" resumed at "_s), qPrintable(output));
        const QStringList published = service->published();
        QCOMPARE(published.size(), 1);
        QCOMPARE(md5Of(service->storedVideo(published.first())), md5Of(video));
        QVERIFY(journalEntries(journal.path()).isEmpty());
        service->stop();
        log += service->log();
        // One sign-in, before the restart; the restarted service took its token.
        static const QRegularExpression tokenRequest(u"^POST /oauth2?/(?:access_)?token \\d+$"_s,
                                                     QRegularExpression::MultilineOption);
        QVERIFY2(log.count(tokenRequest) == 1, qPrintable(log));
        static const QRegularExpression refused(u"^\\S+ /api/\\S+ 401$"_s,
                                                QRegularExpression::MultilineOption);
        QVERIFY2(!log.contains(refused), qPrintable(log));
    }

    void aTokenThatDiesDuringAResumableUploadIsRenewedAndTheUploadGoesOn()
    {
        // Tokens die a second after they are issued, while announcing an hour:
        // after each cut the next chunk meets a dead token, the service answers
        // 401, and the plug-in's OAuth 2.0 authenticator renews it with its
        // refresh token; the upload goes on from the service's offset.
        Service service;
        QVERIFY(service.start(
            {u"--cut-every-bytes"_s, u"1500000"_s, u"--tokens-die-after"_s, u"1"_s}, true));
        const QString video = randomVideo(u"renewed.mp4"_s, 5 * 1024 * 1024 + 7);
        const HostRun run = runHost(
            service, video, {u"--oauth2"_s, u"--no-wrong-password"_s, u"--title"_s, u"Renewed"_s});
        QVERIFY2(run.exitCode == kPublished, qPrintable(run.output));
        const QStringList published = service.published();
        QCOMPARE(published.size(), 1);
        QCOMPARE(md5Of(service.storedVideo(published.first())), md5Of(video));
        service.stop();
        const QString log = service.log();
        static const QRegularExpression refused(u"^PUT /api/uploads/\\S+ 401$"_s,
                                                QRegularExpression::MultilineOption);
        QVERIFY2(log.contains(refused), qPrintable(log));
        // The password grant, then at least one refresh.
        QVERIFY2(log.count(u"POST /oauth2/token 200"_s) >= 2, qPrintable(log));
        QVERIFY2(!run.output.contains(u"Publish failed"_s), qPrintable(run.output));
    }

    void cancelledPublicationLeavesNothingOnTheService_data()
    {
        QTest::addColumn<QStringList>("how");
        QTest::newRow("the sheet") << QStringList{u"--cancel-sheet"_s};
        QTest::newRow("the upload, once under way")
            << QStringList{u"--upload-mode"_s, u"streamed"_s, u"--cancel-after-bytes"_s, u"1"_s};
        QTest::newRow("a resumable upload, once under way")
            << QStringList{u"--upload-mode"_s, u"resumable"_s, u"--cancel-after-bytes"_s, u"1"_s};
    }
    void cancelledPublicationLeavesNothingOnTheService()
    {
        QFETCH(QStringList, how);
        Service service;
        QVERIFY(service.start());
        const QString video = randomVideo(u"cancelled.mp4"_s, 64 * 1024 * 1024);
        const HostRun run = runHost(service, video, QStringList{u"--no-wrong-password"_s} + how);
        QVERIFY2(run.exitCode == kCancelled, qPrintable(run.output));
        QVERIFY2(!run.output.contains(u"Publish failed"_s), qPrintable(run.output));
        // The service notices the dropped connection and clears its half-upload.
        QTRY_VERIFY_WITH_TIMEOUT(service.incoming().isEmpty(), 30000);
        QTRY_VERIFY_WITH_TIMEOUT(service.sessions().isEmpty(), 30000);
        QVERIFY(service.published().isEmpty());
    }

    // Faults: each ends in a clear message on the sheet, a failure status for the
    // host, nothing half-written on the service and the file untouched.
    void faultsEndInAClearErrorAndLeaveNothingBehind_data()
    {
        QTest::addColumn<QStringList>("hostOptions");
        QTest::addColumn<QStringList>("serviceOptions");
        QTest::addColumn<QStringList>("messages");
        QTest::newRow("revoked token")
            << QStringList{u"--revoke-before-publish"_s} << QStringList()
            << QStringList{u"Demo Video no longer accepts your sign-in"_s};
        QTest::newRow("revoked OAuth 2.0 token")
            << QStringList{u"--revoke-before-publish"_s, u"--oauth2"_s} << QStringList()
            << QStringList{u"Demo Video no longer accepts your sign-in"_s};
        QTest::newRow("file deleted before upload")
            << QStringList{u"--delete-before-publish"_s} << QStringList()
            << QStringList{u"cannot be read"_s};
        QTest::newRow("too large for memory")
            << QStringList{u"--upload-mode"_s, u"memory"_s, u"--memory-limit"_s, u"4000000"_s}
            << QStringList() << QStringList{u"too large to upload from memory"_s};
        QTest::newRow("service dies mid-upload")
            << QStringList{u"--upload-mode"_s, u"streamed"_s}
            << QStringList{u"--die-after-bytes"_s, u"1000000"_s}
            << QStringList{u"The connection to Demo Video failed"_s};
        // The service's own reason reaches the sheet.
        QTest::newRow("service refuses the video")
            << QStringList() << QStringList{u"--reject-uploads"_s}
            << QStringList{u"Demo Video refused the video: This demo service is not accepting "
                           u"videos right now."_s,
                           u"HTTP status 422"_s};
    }
    void faultsEndInAClearErrorAndLeaveNothingBehind()
    {
        QFETCH(QStringList, hostOptions);
        QFETCH(QStringList, serviceOptions);
        QFETCH(QStringList, messages);
        Service service;
        QVERIFY(service.start(serviceOptions));
        const QString video = randomVideo(u"fault.mp4"_s, 8 * 1024 * 1024);
        const QString before = md5Of(video);

        const HostRun run =
            runHost(service, video, QStringList{u"--no-wrong-password"_s} + hostOptions);
        QVERIFY2(run.exitCode == kFailed, qPrintable(run.output));
        QVERIFY2(run.output.contains(u"\nNot Published: "_s), qPrintable(run.output));
        for (const QString &message : std::as_const(messages))
            QVERIFY2(run.output.contains(message), qPrintable(run.output));
        if (QFile::exists(video))
            QCOMPARE(md5Of(video), before);

        // A dead service clears what it left half-written when it starts again,
        // which tst_demo_service shows.
        if (serviceOptions.contains(u"--die-after-bytes"_s))
            return;
        QTRY_VERIFY_WITH_TIMEOUT(service.incoming().isEmpty(), 30000);
        QTRY_VERIFY_WITH_TIMEOUT(service.sessions().isEmpty(), 30000);
        QVERIFY(service.published().isEmpty());
    }

    // What is not a video, or empty, is refused before the sheet opens; so is
    // an option value that makes no sense, naming the fault.
    void theHostRefusesWhatItCannotPublish_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<QString>("message");
        QTest::newRow("an empty file")
            << QByteArray() << u"empty.mp4"_s << QStringList() << u"the file is empty"_s;
        QTest::newRow("a text file") << QByteArray("# Notes\n\nNot a video at all.\n")
                                     << u"README.md"_s << QStringList() << u"not a video"_s;
        QTest::newRow("a bad upload mode")
            << QByteArray(4096, 'x') << u"clip.mp4"_s << QStringList{u"--upload-mode"_s, u"fast"_s}
            << u"--upload-mode \"fast\""_s;
        QTest::newRow("a bad byte count")
            << QByteArray(4096, 'x') << u"clip.mp4"_s << QStringList{u"--memory-limit"_s, u"lots"_s}
            << u"--memory-limit \"lots\""_s;
    }
    void theHostRefusesWhatItCannotPublish()
    {
        QFETCH(QByteArray, content);
        QFETCH(QString, name);
        QFETCH(QStringList, options);
        QFETCH(QString, message);
        Service service;
        QVERIFY(service.start());
        const QString path = m_files.filePath(name);
        QVERIFY(writeFile(path, content));
        const HostRun run = runHost(service, path, options);
        QVERIFY2(run.exitCode == kUsage, qPrintable(run.output));
        QVERIFY2(run.output.contains(message), qPrintable(run.output));
        QVERIFY2(!run.output.contains(u"Usage:"_s), qPrintable(run.output)); // not the whole help
        QVERIFY(service.published().isEmpty());
    }

    // With nothing listening at the service's address the user is told that
    // the service cannot be reached, not that the password is wrong.
    void anUnreachableServiceIsNotAWrongPassword()
    {
        Service service;
        QVERIFY(service.start());
        const QString url = service.url();
        service.stop(); // its port now refuses connections
        const QString video = randomVideo(u"unreachable.mp4"_s, 64 * 1024);
        const HostRun run = runHost(service, video, {});
        QVERIFY2(run.exitCode == kCancelled, qPrintable(run.output));
        QVERIFY2(run.output.contains(u"could not be reached at "_s + url), qPrintable(run.output));
        QVERIFY2(!run.output.contains(u"did not accept"_s), qPrintable(run.output));
        QVERIFY2(run.output.contains(u"gives up and cancels"_s), qPrintable(run.output));
    }

private:
    // A file of `size` random bytes called `name`, where the test's files are.
    QString randomVideo(const QString &name, qint64 size)
    {
        const QString path = m_files.filePath(name);
        if (!writeFile(path, randomBytes(size)))
            qFatal("cannot write %s", qPrintable(path));
        return path;
    }

    QTemporaryDir m_files;
};

QTEST_GUILESS_MAIN(tst_DemoE2E)
#include "tst_demo_e2e.moc"
