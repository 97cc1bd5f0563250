#include "core/ZDError.h"
#include "publish/ZDPublishAgent.h"

#include <QLoggingCategory>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

struct Logged
{
    QtMsgType type;
    QByteArray category;
    QString text;
};

QList<Logged> logged;

void record(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    logged.append({type, QByteArray(context.category), text});
}

} // namespace

// The agent's one required line goes through the zd.publish category, so a
// host's logging rules reach it.
class tst_AgentLog : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void theFailureLineIsAWarningOfThePublishCategory();
    void aHostsRulesTurnTheLineOffAndOn_data();
    void aHostsRulesTurnTheLineOffAndOn();

private:
    void failPublishing();

    QtMessageHandler m_previous = nullptr;
};

void tst_AgentLog::init()
{
    logged.clear();
    m_previous = qInstallMessageHandler(record);
}

void tst_AgentLog::cleanup()
{
    qInstallMessageHandler(m_previous);
    QLoggingCategory::setFilterRules(QString());
}

void tst_AgentLog::failPublishing()
{
    ZDPublishAgent agent;
    const ZDError error(u"Upload"_s, 7, {{ZDLocalizedDescriptionKey, u"boom"_s}});
    agent.publishPostDidFailWithError(nullptr, error);
}

void tst_AgentLog::theFailureLineIsAWarningOfThePublishCategory()
{
    failPublishing();
    QCOMPARE(logged.size(), 1);
    QCOMPARE(logged.front().type, QtWarningMsg);
    QCOMPARE(logged.front().category, "zd.publish");
    QCOMPARE(logged.front().text,
             u"Publish failed with error: Error Domain=Upload Code=7 \"boom\""_s);
}

void tst_AgentLog::aHostsRulesTurnTheLineOffAndOn_data()
{
    QTest::addColumn<QString>("rules");
    QTest::addColumn<bool>("shown");
    QTest::newRow("the publish warnings off") << u"zd.publish.warning=false"_s << false;
    QTest::newRow("the whole library off") << u"zd.*=false"_s << false;
    QTest::newRow("another layer off") << u"zd.net=false"_s << true;
    QTest::newRow("the library off, publish back on")
        << u"zd.*=false\nzd.publish.warning=true"_s << true;
    QTest::newRow("debug on leaves warnings on") << u"zd.*.debug=true"_s << true;
}

void tst_AgentLog::aHostsRulesTurnTheLineOffAndOn()
{
    QFETCH(QString, rules);
    QFETCH(bool, shown);
    QLoggingCategory::setFilterRules(rules);
    failPublishing();
    QCOMPARE(logged.size(), shown ? 1 : 0);
}

QTEST_MAIN(tst_AgentLog)
#include "tst_agentlog.moc"
