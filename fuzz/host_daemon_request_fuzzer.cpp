// Parses arbitrary bytes as a request to the host daemon (any local user can
// send them) and as the header of its response. A complete request must
// encode back to exactly the bytes it was read from.
#include <algorithm>
#include <span>

#include "daemon_protocol.h"
#include "fuzz_support.h"

QV_FUZZ_TARGET(SIZE_MAX) {
    std::span<const std::uint8_t> bytes(data, size);
    qvhost::AssertionRequest req;
    std::size_t used = 0;
    if (qvhost::parse_request(bytes, req, &used) == qvhost::RequestParse::kComplete) {
        if (used > size) __builtin_trap();
        std::vector<std::uint8_t> again = qvhost::encode_request(req);
        if (again.size() != used || !std::equal(again.begin(), again.end(), data)) __builtin_trap();
    }
    if (size >= qvhost::kResponseHeaderBytes) {
        std::uint8_t status;
        std::size_t body_len;
        if (qvhost::parse_response_header(bytes.first<qvhost::kResponseHeaderBytes>(), status, body_len) &&
            body_len > qvhost::kMaxResponseBody)
            __builtin_trap();
    }
}
