#pragma once

#include "net/JSONHTTPRequest.h"
#include "net/ZDResumableUpload.h"

#include <QCoreApplication>
#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRandomGenerator>
#include <QTimer>
#include <QVariant>

#include <functional>
#include <memory>
#include <vector>

// Bytes no compressor, parser or lucky offset can see through; the same bytes
// for the same seed, so that a failure can be replayed.
inline QByteArray randomBytes(qint64 size, quint32 seed = QRandomGenerator::global()->generate())
{
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator generator(seed);
    generator.fillRange(reinterpret_cast<quint32 *>(bytes.data()), size_t(size / 4));
    for (qint64 i = size / 4 * 4; i < size; ++i)
        bytes[i] = char(generator.generate());
    return bytes;
}

// Whether `bytes` are now the whole of the file at `path`.
inline bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.flush();
}

// Reaches what JSONHTTPRequest keeps for its subclasses, as a plug-in's does.
class InspectableRequest : public JSONHTTPRequest
{
public:
    explicit InspectableRequest(const QUrl &url = QUrl(QStringLiteral("http://127.0.0.1/")),
                                JSONHTTPRequestDelegate *delegate = nullptr,
                                std::shared_ptr<RequestSigner> signer = nullptr)
        : JSONHTTPRequest(url, delegate, std::move(signer))
    {}
    using JSONHTTPRequest::_multipartParamData;
    using JSONHTTPRequest::hasConnection;
    using JSONHTTPRequest::receivedValidResponse;
    using JSONHTTPRequest::request;
};

// A clock whose waits take no time: each wait moves `now` on and its callback
// runs on the next turn of the event loop, unless its handle was dropped.
// Tests that only read the time set `now` themselves.
class FakeUploadClock : public ZDUploadClock
{
public:
    qint64 msecsNow() const override { return now; }
    std::shared_ptr<void> callAfter(qint64 msecs, std::function<void()> callback) override
    {
        waits.append(msecs);
        now += msecs;
        auto handle = std::make_shared<char>();
        QTimer::singleShot(0,
                           [alive = std::weak_ptr<char>(handle), callback = std::move(callback)] {
                               if (!alive.expired())
                                   callback();
                           });
        return handle;
    }

    qint64 now = 0;
    QList<qint64> waits;
};

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
