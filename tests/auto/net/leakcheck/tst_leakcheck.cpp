// The leak checker must see the library. A child process leaks a request on
// purpose, from inside a Qt event-loop callback (where every frame below it is
// Qt's), and LeakSanitizer, with the project's suppressions, must report it.

#include "LoopbackHTTPServer.h"
#include "TestSupport.h"

#include "net/JSONHTTPRequest.h"

#include <QProcess>
#include <QTest>
#include <QTimer>

using namespace Qt::StringLiterals;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kLeakSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kLeakSanitizer = true;
#else
constexpr bool kLeakSanitizer = false;
#endif
#else
constexpr bool kLeakSanitizer = false;
#endif

class tst_LeakCheck : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void aRequestLeakedFromTheEventLoopIsReported();
};

void tst_LeakCheck::aRequestLeakedFromTheEventLoopIsReported()
{
    if (qEnvironmentVariableIsSet("ZD_LEAK_CHILD")) {
        LoopbackHTTPServer server;
        QVERIFY(server.listen());
        RecordingDelegate delegate;
        // Deliberately never deleted.
        QTimer::singleShot(0, [&] {
            auto *leaked = new JSONHTTPRequest(server.url(u"/leak"_s), &delegate);
            leaked->start();
        });
        QTRY_VERIFY_WITH_TIMEOUT(delegate.endings() == 1, 30000);
        return;
    }
    if (!kLeakSanitizer)
        QSKIP("LeakSanitizer is not in this build; the sanitizer build runs this test");
    const QString suppressions = qEnvironmentVariable("ZD_SOURCE_DIR") + u"/tools/lsan.supp"_s;
    QVERIFY2(QFile::exists(suppressions), qPrintable(suppressions));
    QProcess child;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(u"ZD_LEAK_CHILD"_s, u"1"_s);
    env.insert(u"ASAN_OPTIONS"_s, u"detect_leaks=1"_s);
    env.insert(u"LSAN_OPTIONS"_s, u"suppressions="_s + suppressions);
    child.setProcessEnvironment(env);
    child.start(QCoreApplication::applicationFilePath(),
                {u"aRequestLeakedFromTheEventLoopIsReported"_s});
    QVERIFY(child.waitForFinished(120000));
    const QByteArray report = child.readAllStandardError();
    QVERIFY2(child.exitCode() != 0, report.right(3000).constData());
    QVERIFY2(report.contains("LeakSanitizer: detected memory leaks"),
             report.right(3000).constData());
    QVERIFY2(report.contains("JSONHTTPRequest::JSONHTTPRequest"), report.right(3000).constData());
}

QTEST_GUILESS_MAIN(tst_LeakCheck)
#include "tst_leakcheck.moc"
