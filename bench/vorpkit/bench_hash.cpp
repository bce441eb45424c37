// MD5 and SHA-1 throughput against OpenSSL's low-level digests, one thread,
// measured in the same run, for the accelerated and the portable paths.
#define OPENSSL_SUPPRESS_DEPRECATED 1
#include <openssl/md5.h>
#include <openssl/sha.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "bench_util.h"
#include "cpu_features.h"
#include "vorpkit.h"

namespace {

// The best of three measurements, alternating with the reference's, so that
// other load on the machine disturbs both sides alike.
void compare(const std::string &name, size_t n, const std::function<void()> &ours,
             const std::function<void()> &ref) {
    double best_ours = 0, best_ref = 0;
    for (int i = 0; i < 3; ++i) {
        best_ours = std::max(best_ours, bench::throughput(n, ours, 0.15));
        best_ref = std::max(best_ref, bench::throughput(n, ref, 0.15));
    }
    bench::print_row(name.c_str(), n, best_ours, best_ref);
}

}  // namespace

int main() {
    const size_t sizes[] = {64, 1024, 16384};
    std::vector<uint8_t> buf(16384);
    for (size_t i = 0; i < buf.size(); ++i) buf[i] = static_cast<uint8_t>(i * 131 + 7);
    uint8_t out[20];

    bench::print_header("openssl");
    for (bool portable : {false, true}) {
        vorp::force_portable(portable);
        const char *path = portable ? "portable" : "accelerated";
        for (size_t n : sizes) {
            auto len = static_cast<qv_uint32_t>(n);
            compare(std::string("md5 ") + path, n, [&] { Vorp_md5(nullptr, buf.data(), len, out); },
                    [&] { MD5(buf.data(), n, out); });
        }
        for (size_t n : sizes) {
            auto len = static_cast<qv_uint32_t>(n);
            compare(std::string("sha1 ") + path, n, [&] { Vorp_sha(nullptr, buf.data(), len, out); },
                    [&] {
                        SHA_CTX c;
                        SHA1_Init(&c);
                        SHA1_Update(&c, buf.data(), n);
                        SHA1_Final(out, &c);
                    });
        }
    }
    return 0;
}
