// Outside bytes the "host" module reads: the client's token (service side),
// the service's token (client side), the assertions inside them, the
// module's configuration file, the client id of mpm_login_as_user and the
// "<user>@<host>" names of identity contexts. The first byte picks the
// reader. Assertions are checked against a fixed trusted key, and one reader
// builds a token around an assertion signed with that key from the input's
// fields, so the checks after the signature run too.
#include <sodium.h>

#include <algorithm>

#include "../fuzz_support.h"
#include "host_mech.h"

namespace {

using namespace qvhostmech;

struct Fixed {
    qvhost::HostKey key;
    qvhost::TrustedHosts trusted;
    void *service = nullptr;
    Fixed() {
        if (sodium_init() < 0) __builtin_trap();
        unsigned char seed[crypto_sign_SEEDBYTES] = {7};
        crypto_sign_seed_keypair(key.public_key.data(), key.secret.data(), seed);
        key.loaded = true;
        trusted.keys.push_back({"hostb", 0x1122334455667788ULL, key.public_key, std::nullopt});
        qv_uint32_t minor;
        mpm_init();
        if (mpm_start(&minor, 0, &service) != 0) __builtin_trap();
    }
};

Fixed &fixed() {
    static Fixed f;
    return f;
}

constexpr std::int64_t kNow = 1700000000;

// 1 to 16 letters and digits: a name that passes the format's checks, so
// that the checks after the signature are reached.
std::string text(qvfuzz::Cursor &c) {
    size_t n = 1 + c.byte() % 16;
    std::string s;
    for (size_t i = 0; i < n; ++i) s += "abcdefghijklmnopqrstuvwxyz0123456789"[c.byte() % 36];
    return s;
}

void check_signed(std::span<const uint8_t> in) {
    qvfuzz::Cursor c{in.data(), in.size()};
    qvhost::Assertion a;
    a.flags = c.byte() & 1;
    a.key_id = qvhost::key_id_of(fixed().key.public_key);
    a.not_before = kNow - c.byte();
    a.expiry = std::max<std::int64_t>(a.not_before, kNow + c.byte() - 64);
    a.uid = c.byte();
    a.user = text(c);
    a.host = (c.byte() & 1) != 0 ? "hostb" : text(c);
    a.node_id = (c.byte() & 1) != 0 ? 0x1122334455667788ULL : 1;
    a.peer_service = text(c);
    a.peer_host = text(c);
    const uint8_t flip = c.byte();
    std::vector<uint8_t> token = write_client_token(0, qvhost::sign_assertion(a, fixed().key));
    if (flip != 0) token[flip % token.size()] ^= static_cast<uint8_t>(flip | 1);
    ClientToken t;
    qv_uint32_t minor = 0;
    if (read_client_token(token, t, &minor) != kOk) return;
    qvhost::Assertion out;
    Status s = check_peer_assertion(t.assertion, fixed().trusted, kNow, 0, out, &minor);
    // An unchanged token of a trusted host and node, inside its window, is
    // accepted with every field as signed.
    const bool should = flip == 0 && a.host == "hostb" && a.node_id == 0x1122334455667788ULL && kNow <= a.expiry;
    if (should && (s != kOk || out.user != a.user || out.peer_service != a.peer_service || out.uid != a.uid))
        __builtin_trap();
    if (flip != 0 && s == kOk && out.user != a.user) __builtin_trap();
}

}  // namespace

QV_FUZZ_TARGET(SIZE_MAX) {
    if (size == 0) return;
    Fixed &f = fixed();
    std::vector<uint8_t> in(data + 1, data + size);
    qv_uint32_t minor = 0;
    switch (data[0] % 6) {
    case 0: {
        ClientToken t;
        qvhost::Assertion a;
        if (read_client_token(in, t, &minor) == kOk)
            (void)check_peer_assertion(t.assertion, f.trusted, kNow, 30, a, &minor);
        break;
    }
    case 1: {
        ServiceToken t;
        qvhost::Assertion a;
        if (read_service_token(in, t, &minor) == kOk) {
            if (t.confirm.size() != kConfirmSize) __builtin_trap();
            (void)check_peer_assertion(t.assertion, f.trusted, kNow, 30, a, &minor);
        }
        break;
    }
    case 2: {
        HostConfig c;
        std::string why;
        if (!parse_host_config({reinterpret_cast<const char *>(in.data()), in.size()}, c, why) && why.rfind("line ", 0) != 0)
            __builtin_trap();
        break;
    }
    case 3: check_signed(in); break;
    case 4: {
        sec_buffer_desc id = qvfuzz::view<sec_buffer_desc>(in);
        qv_uint32_t rc = mpm_login_as_user(&minor, &id, nullptr, 0, f.service);
        if (rc != kOk && rc != kNotPermitted && rc != kBadToken) __builtin_trap();
        break;
    }
    case 5: {
        std::string name(reinterpret_cast<const char *>(in.data()), in.size());
        void *ctx = nullptr;
        if (mpm_create_id_context(&minor, MPM_IDCTX_FROM_NAME, name.data(), &ctx) == kOk) {
            char out[8192];
            qv_int32_t len = sizeof out;
            if (mpm_get_client_name(&minor, ctx, &len, out) != kOk) __builtin_trap();
            mpm_end_context(&minor, ctx);
        }
        break;
    }
    }
}
