#pragma once

// The transport under JSONHTTPRequest: one libcurl easy handle per connection,
// all of a thread's connections driven by that thread's ZDCurlDriver
// (ZDCurlDriver_p.h) from its Qt event loop. No worker thread exists.

#include "core/ZDError.h"
#include "net/ZDURLRequest.h"

#include <QByteArrayView>

#include <memory>

class ZDURLConnection;

// Receives a connection's events. Response and data arrive from inside the
// transport and must only record what they are given (no cancelling, no calls
// into user code); progress, finish and failure arrive from the event loop,
// outside the transport, where anything may be done, including releasing the
// connection.
class ZDURLConnectionDelegate
{
public:
    virtual ~ZDURLConnectionDelegate() = default;
    virtual void connectionDidReceiveResponse(ZDURLConnection *connection,
                                              const ZDHTTPResponse &response) = 0;
    virtual void connectionDidReceiveData(ZDURLConnection *connection, QByteArrayView chunk) = 0;
    virtual void connectionDidFinishLoading(ZDURLConnection *connection) = 0;
    virtual void connectionDidFailWithError(ZDURLConnection *connection, const ZDError &error) = 0;
    virtual void connectionDidSendBodyData(ZDURLConnection *connection, qint64 written,
                                           qint64 totalWritten, qint64 totalExpected) = 0;
};

// What one transfer may cost (JSONHTTPRequest documents the rules); 0 turns a
// limit off.
struct ZDTransferLimits
{
    qint64 maximumResponseSize = 0;
    qint64 minimumBytesPerSecond = 0;
    int stallWindowSeconds = 0;
    qint64 maximumDurationMs = 0;
};

class ZDURLConnection : public std::enable_shared_from_this<ZDURLConnection>
{
public:
    // Starts loading `request`. Events go to `delegate` while it lives and the
    // connection is not cancelled. Failures to start arrive as a failure event
    // from the event loop, never from inside this call.
    static std::shared_ptr<ZDURLConnection> start(const ZDURLRequest &request,
                                                  std::weak_ptr<ZDURLConnectionDelegate> delegate,
                                                  const ZDTransferLimits &limits = {});
    // A connection that sends nothing and fails with `error` from the event loop.
    static std::shared_ptr<ZDURLConnection> fail(const ZDURLRequest &request,
                                                 std::weak_ptr<ZDURLConnectionDelegate> delegate,
                                                 const ZDError &error);
    ~ZDURLConnection();
    ZDURLConnection(const ZDURLConnection &) = delete;
    ZDURLConnection &operator=(const ZDURLConnection &) = delete;

    // Stops the transfer; no further event arrives.
    void cancel();

    const ZDURLRequest &originalRequest() const { return m_request; }

    // For the driver: the transfer left the multi handle; it ended (curl's
    // result code); upload progress is waiting to be told.
    void driverDidRelease();
    void driverDidFinish(int curlCode);
    void driverDidProgress();

    // For make_shared only; use start().
    explicit ZDURLConnection(const ZDURLRequest &request);

    // The transport's state, in the implementation file.
    struct Private;
    std::unique_ptr<Private> p;

private:
    ZDURLRequest m_request;
};
