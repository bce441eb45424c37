// The cost of the "local" module's sealing against the bare cipher it uses:
// mpm_prepare_data + mpm_process_data (through dlopen, as the library calls
// them) against libsodium's ChaCha20-Poly1305 encrypt + decrypt of the same
// sizes, measured in the same run. The ratio is the module's overhead
// (framing, sequence checks, allocation, locking). Outputs are malloc'ed
// for the caller, so above glibc's mmap threshold (128 KiB) every message
// costs an mmap and page faults: run with MALLOC_MMAP_THRESHOLD_=4000000 to
// see the module's own share at those sizes.
#include <dlfcn.h>
#include <sodium.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <vector>

#include "qv_sec_mpm.h"

namespace {

template <typename F>
F sym(void *h, const char *name) {
    return reinterpret_cast<F>(dlsym(h, name));
}

template <typename Body>
double seconds(int rounds, Body body) {
    auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < rounds; ++i) body();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

}  // namespace

int main() {
    void *h = dlopen(QVBENCH_LOCAL_MODULE, RTLD_NOW);
    if (h == nullptr || sodium_init() < 0) {
        std::fprintf(stderr, "cannot open %s\n", QVBENCH_LOCAL_MODULE);
        return 1;
    }
    sym<void (*)()>(h, "mpm_init")();
    auto start = sym<decltype(&mpm_start)>(h, "mpm_start");
    auto attr = sym<decltype(&mpm_set_ctx_attribute)>(h, "mpm_set_ctx_attribute");
    auto cstart = sym<decltype(&mpm_start_sec_context)>(h, "mpm_start_sec_context");
    auto receive = sym<decltype(&mpm_receive_sec_context)>(h, "mpm_receive_sec_context");
    auto complete = sym<decltype(&mpm_complete_sec_context)>(h, "mpm_complete_sec_context");
    auto prepare = sym<decltype(&mpm_prepare_data)>(h, "mpm_prepare_data");
    auto process = sym<decltype(&mpm_process_data)>(h, "mpm_process_data");
    auto release = sym<decltype(&mpm_release_buffer)>(h, "mpm_release_buffer");

    qv_uint32_t mn, rflags;
    void *svc = nullptr, *client = nullptr, *server = nullptr;
    int fd[2];
    socketpair(AF_UNIX, SOCK_STREAM, 0, fd);
    sec_socket_info_desc ci{fd[0], 0x01000000, nullptr}, si{fd[1], 0x01000000, nullptr};
    start(&mn, 0, &svc);
    attr(&mn, svc, MPM_ATTR_SOCKET_INFO, &ci, &client);
    attr(&mn, svc, MPM_ATTR_SOCKET_INFO, &si, &server);
    sec_buffer_desc hello{0, nullptr}, reply{0, nullptr}, none{0, nullptr};
    cstart(&mn, svc, nullptr, nullptr, 0, &client, &hello);
    receive(&mn, svc, &hello, &server, &reply, &rflags);
    if (complete(&mn, &reply, client, &none) != 0) {
        std::fprintf(stderr, "no context\n");
        return 1;
    }

    std::printf("%-8s %14s %14s %8s\n", "bytes", "module MB/s", "cipher MB/s", "ratio");
    unsigned char key[32], nonce[12] = {}, tag[16];
    randombytes_buf(key, sizeof key);
    for (size_t size : {64u, 1024u, 16384u, 262144u}) {
        std::vector<uint8_t> data(size, 0x5a), ct(size), pt(size);
        int rounds = static_cast<int>(64u * 1024 * 1024 / size / 4 + 16);
        double mod = seconds(rounds, [&] {
            sec_buffer_desc in{static_cast<qv_int32_t>(size), data.data()}, sealed{0, nullptr}, plain{0, nullptr};
            prepare(&mn, client, 0x00200000, &in, &sealed);
            process(&mn, server, &sealed, &plain);
            release(&mn, &sealed);
            release(&mn, &plain);
        });
        uint64_t n = 0;
        int failures = 0;
        double ref = seconds(rounds, [&] {
            for (int i = 0; i < 8; ++i) nonce[4 + i] = static_cast<unsigned char>(n >> (8 * i));
            ++n;
            crypto_aead_chacha20poly1305_ietf_encrypt_detached(ct.data(), tag, nullptr, data.data(), size, nonce, 10,
                                                               nullptr, nonce, key);
            failures += crypto_aead_chacha20poly1305_ietf_decrypt_detached(pt.data(), nullptr, ct.data(), size, tag,
                                                                           nonce, 10, nonce, key) != 0;
        });
        if (failures != 0) std::fprintf(stderr, "reference failed\n");
        double mb = static_cast<double>(size) * rounds / 1e6;
        std::printf("%-8zu %14.1f %14.1f %8.2f\n", size, mb / mod, mb / ref, ref / mod);
    }
    return 0;
}
