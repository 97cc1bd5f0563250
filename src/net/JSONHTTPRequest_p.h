#pragma once

#include "net/JSONHTTPRequest.h"
#include "net/ZDURLConnection_p.h"

// The state of a JSONHTTPRequest. It lives behind a shared pointer so that it
// outlives its public object when a delegate destroys the request from inside a
// callback: the callback keeps its own reference until it returns.
class JSONHTTPRequestPrivate : public ZDURLConnectionDelegate,
                               public std::enable_shared_from_this<JSONHTTPRequestPrivate>
{
public:
    JSONHTTPRequest *q = nullptr; // null once the public object is gone

    ZDURLRequest request;
    std::shared_ptr<ZDURLConnection> connection;
    std::optional<QByteArray> rawData;
    std::optional<QByteArray> overridePostBody;
    std::optional<ZDBodySegments> overridePostBodySegments;
    ZDWeakRef<JSONHTTPRequestDelegate> delegate;
    bool receivedValidResponse = false;
    std::shared_ptr<RequestSigner> signer;
    QString boundary;
    bool signsMultipartPOSTData = false;
    bool allowsCellularAccess = false;
    JSONHTTPRequestMethod method = JSONHTTPRequestMethodGET;
    JSONHTTPResponseType responseType = JSONHTTPResponseTypeJSON;
    std::optional<QVariantMap> getParams;
    std::optional<QVariantMap> postParams;
    std::optional<QVariantMap> unsignedPostParams;
    std::optional<ZDHTTPResponse> response;

    qint64 maximumResponseSize = 0; // 0: the response type's default
    qint64 minimumBytesPerSecond = JSONHTTPRequestDefaultMinimumBytesPerSecond;
    int stallWindowSeconds = JSONHTTPRequestDefaultStallWindowSeconds;
    qint64 maximumDurationMs = 0;
    qint64 expectedBodySize = -1; // from Content-Length, to size rawData once

    qint64 effectiveMaximumResponseSize() const;
    std::optional<ZDError> refusalBeforeBuilding() const;

    void start();
    void cancel();
    const QString &ensureBoundary();
    std::optional<QVariant> objectFromBody(ZDError &parserError) const;

    void connectionDidReceiveResponse(ZDURLConnection *connection,
                                      const ZDHTTPResponse &response) override;
    void connectionDidReceiveData(ZDURLConnection *connection, QByteArrayView chunk) override;
    void connectionDidFinishLoading(ZDURLConnection *connection) override;
    void connectionDidFailWithError(ZDURLConnection *connection, const ZDError &error) override;
    void connectionDidSendBodyData(ZDURLConnection *connection, qint64 written, qint64 totalWritten,
                                   qint64 totalExpected) override;
};
