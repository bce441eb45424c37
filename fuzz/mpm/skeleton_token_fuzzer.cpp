// Outside bytes the skeleton module reads: the client's hello (service side,
// first round), the service's reply (client side), the client's proof
// (service side, second round), sealed messages, signatures and the names of
// identity contexts. The first byte picks the reader; the rest is the input.
// Each reader runs on a context in the state that expects that input, made
// fresh for the call, so that a reader's refusal is checked too: no input
// without the key can be a valid reply, proof, seal or signature.
#include "../fuzz_support.h"
#include "qv_sec_mpm.h"

namespace {

struct Pair {
    void *client = nullptr, *server = nullptr;
    ~Pair() {
        qv_uint32_t minor = 0;
        mpm_end_context(&minor, client);
        mpm_end_context(&minor, server);
    }
};

void release(sec_buffer_desc &b) {
    qv_uint32_t minor = 0;
    mpm_release_buffer(&minor, &b);
}

// Runs the exchange up to `rounds` steps (1 hello, 2 reply, 3 proof, 4 all).
void exchange(Pair &p, int rounds) {
    qv_uint32_t minor = 0, rflags = 0;
    sec_buffer_desc hello{0, nullptr}, reply{0, nullptr}, proof{0, nullptr}, none{0, nullptr};
    if (mpm_start_sec_context(&minor, nullptr, nullptr, nullptr, 0, &p.client, &hello) != MPM_S_CONTINUE) std::abort();
    if (rounds >= 2 && mpm_receive_sec_context(&minor, nullptr, &hello, &p.server, &reply, &rflags) != MPM_S_CONTINUE)
        std::abort();
    if (rounds >= 3 && mpm_complete_sec_context(&minor, &reply, p.client, &proof) != 0) std::abort();
    if (rounds >= 4 && mpm_receive_sec_context(&minor, nullptr, &proof, &p.server, &none, &rflags) != 0) std::abort();
    release(hello);
    release(reply);
    release(proof);
}

}  // namespace

QV_FUZZ_TARGET(SIZE_MAX) {
    static bool ready = [] {
        setenv("QV_SKELETON_KEY", "fuzzing key", 1);
        mpm_init();
        return true;
    }();
    (void)ready;
    if (size == 0) return;
    std::string bytes(reinterpret_cast<const char *>(data) + 1, size - 1);
    sec_buffer_desc in{static_cast<qv_int32_t>(bytes.size()), bytes.empty() ? nullptr : bytes.data()};
    sec_buffer_desc out{0, nullptr};
    qv_uint32_t minor = 0, rflags = 0, rc = 0;
    Pair p;
    switch (data[0] % 6) {
    case 0:  // the hello: any well-formed one is answered
        rc = mpm_receive_sec_context(&minor, nullptr, &in, &p.server, &out, &rflags);
        if (rc != MPM_S_CONTINUE && out.value != nullptr) std::abort();
        break;
    case 1:  // the reply
        exchange(p, 1);
        if (mpm_complete_sec_context(&minor, &in, p.client, &out) == 0) std::abort();
        break;
    case 2:  // the proof
        exchange(p, 2);
        if (mpm_receive_sec_context(&minor, nullptr, &in, &p.server, &out, &rflags) == 0) std::abort();
        break;
    case 3:  // a sealed message
        exchange(p, 4);
        if (mpm_process_data(&minor, p.server, &in, &out) == 0 || out.value != nullptr) std::abort();
        break;
    case 4: {  // a signature over the input
        exchange(p, 4);
        struct iovec v{bytes.data(), bytes.size()};
        if (mpm_verify_data_v(&minor, p.server, &in, 1, &v) == 0) std::abort();
        break;
    }
    default: {  // an identity context's name
        std::string name(bytes.c_str());
        void *id = nullptr;
        if (mpm_create_id_context(&minor, MPM_IDCTX_FROM_NAME, name.data(), &id) == 0) {
            std::string buf(name.size() + 1, '\0');
            qv_int32_t len = static_cast<qv_int32_t>(buf.size());
            if (mpm_get_client_name(&minor, id, &len, buf.data()) != 0 || std::strcmp(buf.c_str(), name.c_str()) != 0)
                std::abort();
        }
        mpm_end_context(&minor, id);
        break;
    }
    }
    release(out);
}
