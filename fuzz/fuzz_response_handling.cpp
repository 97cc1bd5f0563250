// Response handling for every response type and status class: arbitrary bodies,
// delivered in arbitrary chunks, end in exactly one delegate message and never
// crash, however large or deep.
#include "FuzzSupport.h"

#include "net/JSONHTTPRequest_p.h"

namespace {

class CountingDelegate : public JSONHTTPRequestDelegate
{
public:
    void requestDidReceiveObject(JSONHTTPRequest *, const QVariant &) override { ++messages; }
    void requestDidFailWithError(JSONHTTPRequest *, const ZDError &error) override
    {
        FUZZ_CHECK(!error.isNull());
        ++messages;
    }
    int messages = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 3)
        return 0;
    ensureApplication();
    static const int statuses[] = {200, 204, 302, 404, 500, 600, 101, 399};
    const auto type = JSONHTTPResponseType(data[0] % 4);
    const int status = statuses[data[1] % 8];
    const size_t chunk = 1 + data[2] % 64;
    data += 3;
    size -= 3;

    CountingDelegate delegate;
    JSONHTTPRequest handle(QUrl(QStringLiteral("http://127.0.0.1/")), &delegate);
    auto state = std::make_shared<JSONHTTPRequestPrivate>();
    state->q = &handle;
    state->delegate = &delegate;
    state->responseType = type;
    state->connectionDidReceiveResponse(nullptr, ZDHTTPResponse(QUrl(), status, {}));
    for (size_t offset = 0; offset < size; offset += chunk) {
        state->connectionDidReceiveData(
            nullptr, QByteArrayView(reinterpret_cast<const char *>(data) + offset,
                                    qsizetype(std::min(chunk, size - offset))));
    }
    state->connectionDidFinishLoading(nullptr);
    FUZZ_CHECK(delegate.messages == 1);
    return 0;
}
