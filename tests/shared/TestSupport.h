#pragma once

#include "net/JSONHTTPRequest.h"

#include <QCoreApplication>
#include <QProcess>
#include <QProcessEnvironment>
#include <QVariant>

#include <functional>
#include <vector>

// Records every delegate message of a request, in order.
class RecordingDelegate : public JSONHTTPRequestDelegate
{
public:
    struct Event
    {
        enum Kind { Object, Failure, Progress } kind;
        QVariant object;
        ZDError error;
        qint64 written = 0;
        qint64 expected = 0;
    };

    void requestDidReceiveObject(JSONHTTPRequest *request, const QVariant &object) override
    {
        events.push_back({Event::Object, object, {}, 0, 0});
        if (onEnd)
            onEnd(request);
    }
    void requestDidFailWithError(JSONHTTPRequest *request, const ZDError &error) override
    {
        events.push_back({Event::Failure, {}, error, 0, 0});
        if (onEnd)
            onEnd(request);
    }
    void requestHasWrittenBytesExpectsToWrite(JSONHTTPRequest *request, qint64 written,
                                              qint64 expected) override
    {
        events.push_back({Event::Progress, {}, {}, written, expected});
        if (onProgress)
            onProgress(request);
    }

    int endings() const
    {
        int count = 0;
        for (const Event &event : events)
            count += event.kind != Event::Progress;
        return count;
    }
    const Event &last() const { return events.back(); }

    std::vector<Event> events;
    std::function<void(JSONHTTPRequest *)> onEnd;
    std::function<void(JSONHTTPRequest *)> onProgress;
};

// Death tests: the test function re-runs itself in a child process, which does
// the fatal thing; the parent checks that the child aborted and what it printed.
inline bool inDeathChild()
{
    return qEnvironmentVariableIsSet("ZD_DEATH_CHILD");
}

struct DeathOutcome
{
    bool aborted = false;
    QByteArray stderrText;
};

// Whether the child aborted after printing every one of `needles`.
inline bool diedSaying(const DeathOutcome &outcome, std::initializer_list<const char *> needles)
{
    if (!outcome.aborted)
        return false;
    for (const char *needle : needles) {
        if (!outcome.stderrText.contains(needle))
            return false;
    }
    return true;
}

inline DeathOutcome runDeathChild(const char *testFunction, const QString &dataTag = {})
{
    QProcess child;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("ZD_DEATH_CHILD"), QStringLiteral("1"));
    child.setProcessEnvironment(env);
    QString function = QString::fromLatin1(testFunction);
    if (!dataTag.isEmpty())
        function += u':' + dataTag;
    child.start(QCoreApplication::applicationFilePath(), {function});
    child.waitForFinished(120000);
    return {child.exitStatus() == QProcess::CrashExit, child.readAllStandardError()};
}
