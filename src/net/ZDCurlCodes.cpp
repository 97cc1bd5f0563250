#include "net/ZDCurlCodes_p.h"

#include <curl/curl.h>

#include <array>

namespace {

struct Row
{
    CURLcode code;
    const char16_t *description; // null: the general sentence
    bool retryable;
};

constexpr char16_t kGeneral[] = u"The exchange with the server failed.";

// The connection's failures that a retry can cure are the network's (no route,
// no answer, a cut, a stall); a malformed address, an untrusted certificate or
// an undecodable answer fails the same way every time.
constexpr std::array kRows{
    Row{CURLE_UNSUPPORTED_PROTOCOL, u"The address uses a protocol other than http or https.",
        false},
    Row{CURLE_URL_MALFORMAT, u"The address is malformed.", false},
    Row{CURLE_COULDNT_RESOLVE_PROXY, u"The proxy server could not be found.", true},
    Row{CURLE_COULDNT_RESOLVE_HOST, u"The server could not be found.", true},
    Row{CURLE_COULDNT_CONNECT, u"Could not connect to the server.", true},
    Row{CURLE_HTTP2, nullptr, true},
    Row{CURLE_PARTIAL_FILE, u"The connection broke before the whole response arrived.", true},
    // The request layer's own pause while reading a body, not the file: a file
    // that cannot be read is reported by the engine itself.
    Row{CURLE_READ_ERROR, nullptr, true},
    Row{CURLE_OPERATION_TIMEDOUT, u"The server did not answer in time.", true},
    Row{CURLE_SSL_CONNECT_ERROR, u"A secure connection to the server could not be made.", true},
    Row{CURLE_PEER_FAILED_VERIFICATION, u"The server's certificate is not trusted.", false},
    Row{CURLE_GOT_NOTHING, u"The server closed the connection without answering.", true},
    Row{CURLE_SEND_ERROR, u"The connection broke while the request was sent.", true},
    Row{CURLE_RECV_ERROR, u"The connection broke before the whole response arrived.", true},
    Row{CURLE_HTTP2_STREAM, nullptr, true},
    Row{CURLE_TOO_MANY_REDIRECTS, u"The server redirected the request too many times.", false},
    Row{CURLE_BAD_CONTENT_ENCODING, u"The server's compressed response could not be decoded.",
        false},
    Row{CURLE_WEIRD_SERVER_REPLY, u"The server's response is not valid HTTP.", false},
    Row{CURLE_OUT_OF_MEMORY, u"The transport ran out of memory.", false},
};

} // namespace

ZDCurlCode zdCurlCode(qint64 code)
{
    for (const Row &row : kRows) {
        if (row.code == code)
            return {QString::fromUtf16(row.description ? row.description : kGeneral),
                    row.retryable};
    }
    return {QString::fromUtf16(kGeneral), false};
}
