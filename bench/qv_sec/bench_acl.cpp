// ACL edits and checks at scale. One sub-ACL of 100,000 entries: an add of a
// new identifier in its middle and the delete of it, each against memcpy of
// the same buffer into a warm destination (the floor: an edit must produce a
// fresh buffer) and against malloc + memcpy + free (what producing a fresh
// buffer costs); then one access check (a network name and two groups)
// against std::lower_bound over the identifiers held as a sorted
// std::vector<std::string> of the same size, three searches too. Best of
// several runs, alternated in the same process.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "qv_sec.h"

namespace {

constexpr int kEntries = 100'000;
constexpr int kRuns = 15;
constexpr uint32_t kMech = 0x00010002;

void put32(std::vector<uint8_t> &b, uint32_t v) {
    for (int s = 24; s >= 0; s -= 8) b.push_back(static_cast<uint8_t>(v >> s));
}

std::string user(int i) {
    char s[32];
    std::snprintf(s, sizeof s, "user%07d@EXAMPLE.ORG", i * 2);
    return s;
}

// The ACL as sec_add_acle_to_acl would leave it: one sub-ACL of type 3, the
// identifiers in order.
std::vector<uint8_t> big_acl(std::vector<std::string> &ids) {
    std::vector<uint8_t> body;
    for (int i = 0; i < kEntries; ++i) {
        ids.push_back(user(i));
        const std::string &id = ids.back();
        put32(body, static_cast<uint32_t>(17 + id.size()));
        put32(body, kMech);
        put32(body, 1u << (i % 32));
        body.push_back(0);
        body.push_back(3);
        body.insert(body.end(), id.begin(), id.end());
        body.insert(body.end(), 3, 0);
    }
    std::vector<uint8_t> acl;
    for (uint32_t v : {SEC_ACL_HEAD_MAGIC, 16u, 1u, uint32_t(kEntries), SEC_SUBACL_HEAD_MAGIC, 0x00030000u, kMech, 0u,
                       uint32_t(kEntries)})
        put32(acl, v);
    acl.insert(acl.end(), body.begin(), body.end());
    return acl;
}

template <typename F>
double best_seconds(long iterations, F body) {
    double best = 1e9;
    for (int r = 0; r < kRuns; ++r) {
        auto start = std::chrono::steady_clock::now();
        for (long i = 0; i < iterations; ++i) body();
        best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() /
                                  static_cast<double>(iterations));
    }
    return best;
}

// Makes the compiler assume the bytes at p are read, so that no copy is
// left out.
void keep(void *p) { asm volatile("" : : "r"(p) : "memory"); }

void fail(const char *what) {
    std::fprintf(stderr, "%s failed\n", what);
    std::exit(1);
}

}  // namespace

int main() {
    std::vector<std::string> ids;
    const std::vector<uint8_t> bytes = big_acl(ids);
    sec_acl_buffer_desc acl{0, nullptr};
    if (sec_create_acl_from_data(static_cast<qv_int32_t>(bytes.size()), const_cast<uint8_t *>(bytes.data()), &acl))
        fail("loading the ACL");
    char middle[] = "user0100001@EXAMPLE.ORG";  // between two stored identifiers
    sec_acle_t entry = nullptr;
    if (sec_create_acle(kMech, 0x80, 3, middle, &entry)) fail("sec_create_acle");

    std::vector<uint8_t> warm(bytes.size());
    volatile uint8_t sink = 0;
    const long n = 40;
    double copy = best_seconds(n, [&] {
        std::memcpy(warm.data(), acl.value, static_cast<size_t>(acl.length));
        keep(warm.data());
    });
    double fresh = best_seconds(n, [&] {
        void *p = std::malloc(static_cast<size_t>(acl.length));
        std::memcpy(p, acl.value, static_cast<size_t>(acl.length));
        keep(p);
        std::free(p);
    });
    double add = 1e9, del = 1e9;
    for (int r = 0; r < kRuns; ++r) {
        auto t0 = std::chrono::steady_clock::now();
        if (sec_add_acle_to_acl(entry, 0, &acl)) fail("add");
        auto t1 = std::chrono::steady_clock::now();
        if (sec_del_acle_from_acl(entry, 0, &acl)) fail("delete");
        auto t2 = std::chrono::steady_clock::now();
        add = std::min(add, std::chrono::duration<double>(t1 - t0).count());
        del = std::min(del, std::chrono::duration<double>(t2 - t1).count());
    }

    std::printf("one sub-ACL of %d entries, %d bytes (best of %d runs)\n", kEntries, acl.length, kRuns);
    std::printf("%-34s %10.1f us\n", "memcpy (warm destination)", copy * 1e6);
    std::printf("%-34s %10.1f us\n", "malloc + memcpy + free", fresh * 1e6);
    std::printf("%-34s %10.1f us   ratio to memcpy %5.2f, to malloc+memcpy %5.2f\n", "sec_add_acle_to_acl", add * 1e6,
                add / copy, add / fresh);
    std::printf("%-34s %10.1f us   ratio to memcpy %5.2f, to malloc+memcpy %5.2f\n", "sec_del_acle_from_acl",
                del * 1e6, del / copy, del / fresh);

    // The check: a present name and two groups that have no entries.
    const char *groups[] = {"staff", "wheel"};
    std::string name = ids[kEntries / 3];
    sec_acl_client_desc client{kMech, name.c_str(), nullptr, 2, groups};
    qv_uint32_t granted = 0;
    const long m = 200'000;
    double check = best_seconds(m, [&] {
        if (sec_check_acl_client(&acl, nullptr, &client, 0xffffffff, &granted)) fail("check");
        sink = sink + static_cast<uint8_t>(granted);
    });
    const std::string keys[] = {name, "staff", "wheel"};
    double index = best_seconds(m, [&] {
        for (const std::string &k : keys) sink = sink + (std::lower_bound(ids.begin(), ids.end(), k) != ids.end());
    });
    std::printf("%-34s %10.3f us\n", "sec_check_acl_client (3 searches)", check * 1e6);
    std::printf("%-34s %10.3f us   ratio check/index %5.2f\n", "std::lower_bound x3 (vector)", index * 1e6,
                check / index);

    sec_release_acle(&entry);
    sec_release_acl(&acl);
    return 0;
}
