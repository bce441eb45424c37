// MD5 and SHA-1 throughput against OpenSSL's low-level digests, one thread,
// measured in the same run, for the accelerated and the portable paths.
#define OPENSSL_SUPPRESS_DEPRECATED 1
#include <openssl/md5.h>
#include <openssl/sha.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bench_util.h"
#include "cpu_features.h"
#include "vorpkit.h"

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
            double ours = bench::throughput(n, [&] { Vorp_md5(nullptr, buf.data(), len, out); });
            double ref = bench::throughput(n, [&] { MD5(buf.data(), n, out); });
            bench::print_row((std::string("md5 ") + path).c_str(), n, ours, ref);
        }
        for (size_t n : sizes) {
            auto len = static_cast<qv_uint32_t>(n);
            double ours = bench::throughput(n, [&] { Vorp_sha(nullptr, buf.data(), len, out); });
            double ref = bench::throughput(n, [&] {
                SHA_CTX c;
                SHA1_Init(&c);
                SHA1_Update(&c, buf.data(), n);
                SHA1_Final(out, &c);
            });
            bench::print_row((std::string("sha1 ") + path).c_str(), n, ours, ref);
        }
    }
    return 0;
}
