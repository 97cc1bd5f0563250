// A service's own upload shape, written the way a plug-in author would: only
// against the installed public headers.
#include "FaultProxy.h"
#include "LoopbackHTTPServer.h"
#include "TestSupport.h"

#include "net/ZDResumableUpload.h"
#include "net/ZDUploadDialect.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

// POST opens a session at Location, GET answers {"offset": n}, PUT with X-Offset
// appends; every answer carries the offset as JSON.
class OffsetDialect final : public ZDUploadDialect
{
public:
    bool isResumable() const override { return true; }
    ZDUploadWireRequest creationRequest(const ZDUploadDialectContext &context) const override
    {
        ZDUploadWireRequest request{"POST", context.endpoint};
        request.headers = {{u"X-Length"_s, QString::number(context.totalBytes)}};
        request.body = QByteArray();
        return request;
    }
    ZDUploadSession sessionFromAnswer(const ZDUploadDialectContext &,
                                      const ZDHTTPResponse &response,
                                      const QByteArray &) const override
    {
        return {QUrl::fromEncoded(response.valueForHTTPHeaderField("Location")), QDateTime()};
    }
    ZDUploadWireRequest offsetRequest(const ZDUploadDialectContext &context) const override
    {
        return {"GET", context.sessionURL};
    }
    ZDUploadOffsetAnswer offsetFromAnswer(const ZDUploadDialectContext &context,
                                          const ZDHTTPResponse &response,
                                          const QByteArray &body) const override
    {
        return offsetOf(context, response, body);
    }
    ZDUploadWireRequest chunkRequest(const ZDUploadDialectContext &context, qint64 offset,
                                     qint64 length) const override
    {
        ZDUploadWireRequest request{"PUT", context.sessionURL};
        request.headers = {{u"X-Offset"_s, QString::number(offset)}};
        request.fileRange = {offset, length};
        return request;
    }
    ZDUploadOffsetAnswer chunkOffsetFromAnswer(const ZDUploadDialectContext &context, qint64,
                                               qint64, const ZDHTTPResponse &response,
                                               const QByteArray &body) const override
    {
        return offsetOf(context, response, body);
    }

private:
    static ZDUploadOffsetAnswer offsetOf(const ZDUploadDialectContext &context,
                                         const ZDHTTPResponse &response, const QByteArray &body)
    {
        const QJsonValue offset = QJsonDocument::fromJson(body).object().value(u"offset"_s);
        if (response.statusCode() != 200 || !offset.isDouble())
            return {};
        return {qint64(offset.toDouble()), qint64(offset.toDouble()) == context.totalBytes};
    }
};

class Outcome : public ZDResumableUploadDelegate
{
public:
    void uploadDidFinish(ZDResumableUpload *, const QVariant &) override { ++finishes; }
    void uploadDidFailWithError(ZDResumableUpload *, const ZDError &failure) override
    {
        error = failure;
        ++failures;
    }
    int finishes = 0;
    int failures = 0;
    ZDError error;
};

} // namespace

class tst_UploadDialect : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void aDialectOfItsOwnResumesThroughCutsToAByteIdenticalFile();
};

void tst_UploadDialect::aDialectOfItsOwnResumesThroughCutsToAByteIdenticalFile()
{
    const QByteArray content = randomBytes(700 * 1024, 7);
    QTemporaryDir dir;
    const QString path = dir.filePath(u"clip.mov"_s);
    QVERIFY(writeFile(path, content));

    QByteArray stored;
    LoopbackHTTPServer server;
    QVERIFY(server.listen());
    server.setHandler([&](const RecordedRequest &request) {
        if (request.method == "POST") {
            CannedReply reply;
            reply.status = 201;
            reply.headers = {{"Location", "/uploads/1"}};
            return reply;
        }
        if (request.method == "PUT") {
            if (request.header("X-Offset").toLongLong() != stored.size())
                return CannedReply::json(R"({"error":"offset"})", 409);
            stored += request.body;
        }
        return CannedReply::json("{\"offset\":" + QByteArray::number(stored.size()) + "}");
    });
    // Cuts inside the first, second and third chunks, request heads included.
    FaultProxy proxy(server.port());
    QVERIFY(proxy.listen());
    proxy.cutAt({100 * 1024, 300 * 1024, 520 * 1024});

    Outcome outcome;
    ZDResumableUpload upload(std::make_shared<OffsetDialect>(),
                             QUrl(u"http://127.0.0.1:%1/uploads"_s.arg(proxy.port())), path,
                             &outcome);
    upload.setChunkGranularity(64 * 1024);
    upload.setChunkSize(192 * 1024);
    ZDRetryPolicy policy;
    policy.initialDelayMsecs = 1;
    policy.jitter = 0;
    upload.setRetryPolicy(policy);
    upload.start();
    QTRY_COMPARE_WITH_TIMEOUT(outcome.finishes + outcome.failures, 1, 60000);
    QVERIFY2(outcome.finishes == 1, qPrintable(outcome.error.localizedDescription()));
    QCOMPARE(proxy.cuts(), 3);
    QVERIFY(stored == content);
}

QTEST_GUILESS_MAIN(tst_UploadDialect)
#include "tst_uploaddialect.moc"
