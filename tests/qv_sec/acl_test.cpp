// ACL entries and buffers, their editing, the permission routines, the
// access check and `qvsec acl`. Buffers are compared byte for byte with ones
// this test writes itself; edits of random sub-ACLs (in order, out of order,
// with odd stored lengths) against the editing tree written out plainly
// here; the access check against a plain scan of the entries the ACL was
// built from.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "alloc_failure.h"
#include "current_error.h"
#include "child_process.h"
#include "identity_fixture.h"
#include "messages.h"
#include "qv_sec_internal.h"
#include "test_support.h"

// This program's identity mapping: every user is in "qvgrp" alone.
extern "C" int sec_idm_get_groups(sec_buffer_t, int *gcount, sec_buffer_t *groups) {
    *gcount = 1;
    *groups = static_cast<sec_buffer_t>(calloc(1, sizeof(sec_buffer_desc)));
    (*groups)[0] = {6, strdup("qvgrp")};
    return 0;
}

namespace {

using ctxtest::be32;
using ctxtest::Bytes;
using ctxtest::operator+;
using qvtest::to_hex;

// An entry as stored; pad zero bytes follow the identifier's NUL (2 as
// sec_create_acle makes them; other values give odd stored lengths).
Bytes entry(uint16_t type, uint32_t mech, uint32_t perm, const std::string &id = "", size_t pad = 2) {
    Bytes b = be32(0) + be32(mech) + be32(perm) + Bytes{uint8_t(type >> 8), uint8_t(type)};
    if (type == 3 || type == 4) b = b + Bytes(id.begin(), id.end()) + Bytes(1 + pad, 0);
    else b = b + Bytes(2, 0);
    Bytes len = be32(uint32_t(b.size()));
    std::copy(len.begin(), len.end(), b.begin());
    return b;
}

struct Sub {
    uint16_t type;
    uint32_t mech;
    std::vector<Bytes> entries;
};

Bytes acl_of(const std::vector<Sub> &subs) {
    uint32_t total = 0;
    for (const Sub &s : subs) total += uint32_t(s.entries.size());
    Bytes b = be32(SEC_ACL_HEAD_MAGIC) + be32(subs.empty() ? 0 : 16) + be32(1) + be32(total);
    for (size_t i = 0; i < subs.size(); ++i) {
        Bytes body;
        for (const Bytes &e : subs[i].entries) body = body + e;
        uint32_t next = i + 1 == subs.size() ? 0 : uint32_t(20 + body.size());
        b = b + be32(SEC_SUBACL_HEAD_MAGIC) + Bytes{uint8_t(subs[i].type >> 8), uint8_t(subs[i].type), 0, 0} +
            be32(subs[i].mech) + be32(next) + be32(uint32_t(subs[i].entries.size())) + body;
    }
    return b;
}

// An ACL buffer made from bytes through the library, freed at the end.
struct Acl {
    sec_acl_buffer_desc d{0, nullptr};
    Acl() = default;
    explicit Acl(const Bytes &b) { EXPECT_EQ(sec_create_acl_from_data(int32_t(b.size()), (void *)b.data(), &d), 0); }
    ~Acl() { free(d.value); }
    Bytes bytes() const { return d.value ? Bytes((uint8_t *)d.value, (uint8_t *)d.value + d.length) : Bytes{}; }
};

struct Entry {
    sec_acle_t e = nullptr;
    Entry(uint32_t type, uint32_t mech, uint32_t perm, const char *id) {
        EXPECT_EQ(sec_create_acle(mech, perm, type, const_cast<char *>(id), &e), 0);
    }
    explicit Entry(const Bytes &b) : e(static_cast<sec_acle_t>(malloc(b.size()))) { memcpy(e, b.data(), b.size()); }
    ~Entry() { free(e); }
};

char kAb[] = "ab";
constexpr sec_acl_types_desc kTypes = SEC_ACL_TYPES_DEFAULT;

// What the entry and buffer routines give back; their refusals are in
// contract_test.
TEST(Acl, EntriesAndPermissionRoutines) {
    sec_acle_t made = nullptr;
    ASSERT_EQ(sec_create_acle(0x10002, 5, 3, kAb, &made), 0);
    sec_acl_buffer_desc out{0, nullptr};
    sec_buffer_desc id{0, nullptr}, cab{0, nullptr};
    sec_ctx_token_desc open{};
    open.magic = SEC_CTX_TOKEN_MAGIC;
    Acl valid(acl_of({{3, 1, {entry(3, 1, 0xffffffff, "alice")}}}));
    sec_status_desc st;
    for (sec_acl_buffer_t a : {&valid.d, &out}) {  // a valid and an empty ACL
        sec_boolean_t r = 7, m = 7;
        EXPECT_EQ(sec_sec_verify_perm_from_ctx(&st, &open, 0xffffffff, a, &r, &m) + r + m, 0);
        r = m = 7;
        EXPECT_EQ(sec_sec_verify_perm_from_cab(&st, &open, &cab, 0xffffffff, a, &r, &m) + r + m, 0);
    }
    // Entry bytes, the identifier read back, the entry released.
    EXPECT_EQ(to_hex((uint8_t *)made, 19), "00000013000100020000000500036162000000");
    ASSERT_EQ(sec_display_acle_id(made, &id), 0);
    EXPECT_EQ(std::string((char *)id.value, id.length), std::string("ab", 3));
    sec_release_buffer(&id);
    EXPECT_EQ(sec_release_acle(&made), 0);
    EXPECT_EQ(made, nullptr);
    EXPECT_EQ(sec_release_acl(&valid.d), 0);
    EXPECT_EQ(valid.d.value, nullptr);
}

// ---- Editing ----

// Entries added (or deleted) in turn through the library, from the empty
// ACL; gives the entries the ACL then holds, a later one replacing an
// earlier one of the same identifier.
struct Grant {
    uint16_t type;
    uint32_t mech, perm;
    std::string id;
    bool del = false;
};

std::vector<Grant> build(Acl &a, const std::vector<Grant> &grants) {
    std::vector<Grant> kept;
    for (const Grant &g : grants) {
        Entry e(g.type, g.mech, g.perm, g.id.c_str());
        EXPECT_EQ(g.del ? sec_del_acle_from_acl(e.e, 0, &a.d) : sec_add_acle_to_acl(e.e, 0, &a.d), 0) << g.id;
        std::erase_if(kept, [&](const Grant &k) { return k.type == g.type && k.mech == g.mech && k.id == g.id; });
        if (!g.del) kept.push_back(g);
    }
    return kept;
}

Bytes edited(const std::vector<Grant> &ops) {
    Acl a;
    build(a, ops);
    return a.bytes();
}

// What the random edits below do not reach: the layout of a buffer made
// from nothing, sub-ACLs in first-use order, types without identifier, a
// delete that empties a sub-ACL.
TEST(AclEdit, BuiltBuffers) {
    EXPECT_EQ(to_hex(edited({{3, 0x10002, 5, "b"}})),
              "b0bc0de1000000100000000100000001b0bc0de2000300000001000200000000"
              "00000001000000120001000200000005000362000000");
    const std::vector<std::pair<std::vector<Grant>, Bytes>> rows = {
        {{{1, 1, 1, "x"}, {1, 1, 2, "y"}}, acl_of({{1, 1, {entry(1, 1, 2)}}})},
        {{{4, 2, 1, "g"}, {3, 1, 1, "u"}, {4, 1, 1, "h"}, {4, 2, 5, "f"}},
         acl_of({{4, 2, {entry(4, 2, 5, "f"), entry(4, 2, 1, "g")}}, {3, 1, {entry(3, 1, 1, "u")}},
                 {4, 1, {entry(4, 1, 1, "h")}}})},
        {{{3, 1, 1, "a"}, {2, 0, 1, ""}, {3, 1, 0, "a", true}}, acl_of({{3, 1, {}}, {2, 0, {entry(2, 0, 1)}}})},
    };
    for (const auto &[ops, want] : rows) EXPECT_EQ(to_hex(edited(ops)), to_hex(want)) << ops.back().id;
}

TEST(AclEdit, FailuresLeaveTheBufferAsItWas) {
    const Bytes abc = acl_of({{3, 1, {entry(3, 1, 1, "a"), entry(3, 1, 1, "c")}}, {4, 1, {entry(4, 1, 1, "g")}}});
    auto at = [&](size_t i, uint8_t v) {
        Bytes b = abc;
        b[i] = v;
        return b;
    };
    const Bytes dup = acl_of({{3, 1, {entry(3, 1, 1, "b"), entry(3, 1, 1, "a"), entry(3, 1, 2, "b")}}});
    // Out of order, so the pass has settled the order when the third entry overruns.
    Bytes unsorted_overrun = acl_of({{3, 1, {entry(3, 1, 1, "c"), entry(3, 1, 1, "a"), entry(3, 1, 1, "e")}}});
    unsorted_overrun[36 + 2 * 18 + 3] = 0x40;
    struct Case {
        Bytes acl;
        bool add;
        Bytes entry;
        int rc, msg;
        const char *args;  // the message's leading arguments
    };
    const std::vector<Case> rows = {
        {abc, false, entry(3, 1, 0, "b"), 18, MSG_2650_035, "3,b"},  // the type where the mechanism is named
        {{}, false, entry(4, 1, 0, "q"), 18, MSG_2650_035, "4,q"},
        {dup, true, entry(3, 1, 0, "z"), 23, MSG_2650_033, ""},
        {at(0, 0), true, entry(3, 1, 0, "b"), 6, MSG_2650_038, ""},                // head magic
        {at(16, 0), true, entry(3, 1, 0, "b"), 6, MSG_2650_038, ""},               // sub-ACL magic
        {at(7, 20), true, entry(3, 1, 0, "b"), 6, MSG_2650_038, ""},               // start offset
        {at(31, 8), false, entry(4, 1, 0, "g"), 6, MSG_2650_038, ""},              // next offset
        {at(39, 0x40), false, entry(3, 1, 0, "a"), 6, MSG_2650_038, ""},           // entry overruns
        {at(35, 3), true, entry(3, 1, 0, "b"), 6, MSG_2650_038, ""},               // count
        {unsorted_overrun, true, entry(3, 1, 0, "b"), 6, MSG_2650_038, ""},
        {Bytes(abc.begin(), abc.begin() + 9), true, entry(3, 1, 0, "b"), 6, MSG_2650_038, ""},
        {abc, true, Bytes{0, 0, 0, 16, 0, 0, 0, 1, 0, 0, 0, 1, 0, 3, 'x', 'y'}, 4, MSG_2650_031, "sec_add_acle_to_acl,1"},
    };
    for (const Case &r : rows) {
        Acl a(r.acl);
        void *before = a.d.value;
        Entry e(r.entry);
        cu_set_no_error_1();
        EXPECT_EQ(r.add ? sec_add_acle_to_acl(e.e, 1, &a.d) : sec_del_acle_from_acl(e.e, 1, &a.d), r.rc);
        EXPECT_EQ(qvtest::current_error().msg_num, r.msg);
        EXPECT_EQ(qvtest::current_error_args().rfind(r.args, 0), 0u) << qvtest::current_error_args();
        EXPECT_EQ(a.d.value, before);
        EXPECT_EQ(a.bytes(), r.acl);
    }
    // A record of length 0 is the empty ACL, whatever its pointer.
    sec_acl_buffer_desc zero{0, kAb};
    EXPECT_EQ(sec_del_acle_from_acl(Entry(entry(4, 1, 0, "q")).e, 0, &zero), SEC_S_NO_ACL_ENTRIES);
}

// The editing tree, plainly: a node that compares greater sends the new
// entry left. Returns 0, 23 or 18, and the entries in order.
struct Tree {
    struct Node {
        const Bytes *e;
        int left = -1, right = -1;
        bool present = true;
    };
    std::vector<Node> nodes;
    static int cmp(const Bytes &a, const Bytes &b) {
        return strncmp((const char *)&a[14], (const char *)&b[14], std::max(a[3] | a[2] << 8, b[3] | b[2] << 8) - 16);
    }
    int *find(const Bytes &e, int *link) {
        while (*link != -1 && cmp(*nodes[*link].e, e) != 0)
            link = cmp(*nodes[*link].e, e) > 0 ? &nodes[*link].left : &nodes[*link].right;
        return link;
    }
    void walk(int i, std::vector<Bytes> &out) {
        if (i == -1) return;
        walk(nodes[i].left, out);
        if (nodes[i].present) out.push_back(*nodes[i].e);
        walk(nodes[i].right, out);
    }
    int edit(const std::vector<Bytes> &stored, const Bytes &x, bool add, std::vector<Bytes> &out) {
        nodes.reserve(stored.size() + 1);
        int root = -1;
        for (const Bytes &e : stored) {
            int *link = find(e, &root);
            if (*link != -1) return 23;
            nodes.push_back({&e});
            *link = int(nodes.size()) - 1;
        }
        int *link = find(x, &root);
        if (!add && *link == -1) return 18;
        if (!add) nodes[*link].present = false;
        if (add && *link != -1) nodes[*link].e = &x;
        if (add && *link == -1) {
            nodes.push_back({&x});
            *link = int(nodes.size()) - 1;
        }
        walk(root, out);
        return 0;
    }
};

TEST(AclEdit, AgreesWithTheEditingTree) {
    std::mt19937 rng(11);
    auto pick = [&](int n) { return int(rng() % n); };
    // Short ones, and long ones sharing more than the sixteen bytes compared at once.
    const char *ids[] = {"a", "b", "ab", "abc", "b0", "\x7f", "ba", "c", "ca", "abd", "\xe9",
                         "user0000000000000001@X", "user0000000000000002@X", "user00000000000000", "user0000000000000\xe9"};
    constexpr int kIds = sizeof ids / sizeof ids[0];
    int outcomes[24] = {};
    for (int round = 0; round < 3000; ++round) {
        const int kind = round % 3;  // 0 in order, 1 any order, 2 any order with odd stored lengths
        std::vector<Bytes> stored;
        std::set<std::string> seen;
        // Every fourth in-order round: up to 80 entries, for the long runs
        // that edits copy while they check.
        const bool many = kind == 0 && round % 4 == 0;
        for (int i = pick(many ? 80 : 9); i > 0; --i) {
            std::string id = many ? "user" + std::to_string(rng() % 100000) + std::string(pick(8) == 0 ? 250 + pick(20) : pick(30), 'x') : ids[pick(kIds)];
            if (kind == 0 && !seen.insert(id).second) continue;
            const size_t pad = kind == 2 ? size_t(pick(2) * 4) : many && pick(10) == 0 ? 260 : 2;
            stored.push_back(entry(3, 7, uint32_t(rng()), id, pad));
        }
        if (kind == 0) std::sort(stored.begin(), stored.end(), [](auto &a, auto &b) { return Tree::cmp(a, b) < 0; });
        std::string x_id = ids[pick(kIds)];
        if (many) x_id = !stored.empty() && pick(2) ? (const char *)&stored[pick(int(stored.size()))][14]
                                                    : "user" + std::to_string(rng() % 100000);
        const Bytes x = entry(3, 7, uint32_t(rng()), x_id, kind == 2 ? size_t(pick(3)) : 2);
        const bool add = pick(2) == 0;
        const Sub before{4, 7, {entry(4, 7, 1, "g")}}, after{3, 8, {entry(3, 8, 1, "z")}};
        Acl a(acl_of({before, {3, 7, stored}, after}));
        const Bytes original = a.bytes();
        Entry e(x);
        std::vector<Bytes> out;
        const int want = Tree().edit(stored, x, add, out);
        ++outcomes[want];
        ASSERT_EQ(add ? sec_add_acle_to_acl(e.e, 0, &a.d) : sec_del_acle_from_acl(e.e, 0, &a.d), want) << round;
        ASSERT_EQ(to_hex(a.bytes()), to_hex(want == 0 ? acl_of({before, {3, 7, out}, after}) : original)) << round;
    }
    EXPECT_GT(outcomes[0], 1000);
    EXPECT_GT(outcomes[18], 100);
    EXPECT_GT(outcomes[23], 100);
}

// Every allocation of an edit failing in turn; and an entry list released.
TEST(AclEdit, AllocationFailuresLeaveTheBuffer) {
    auto sub = [](const char *first, const char *second, size_t pad) {
        return acl_of({{3, 1, {entry(3, 1, 1, first, pad), entry(3, 1, 1, second, pad)}}});
    };
    // Long enough for the pass's tight loops, which copy into the new buffer.
    std::vector<Bytes> run;
    for (char c = 'a'; c <= 'p'; ++c) run.push_back(entry(3, 1, 1, std::string(2, c)));
    const Bytes long_sub = acl_of({{3, 1, run}});
    const std::vector<std::tuple<Bytes, bool, Bytes>> rows = {
        {sub("a", "c", 2), true, entry(3, 1, 2, "b")},  {sub("a", "c", 2), true, entry(4, 1, 2, "b")},
        {sub("a", "c", 2), false, entry(3, 1, 2, "c")}, {sub("c", "a", 2), true, entry(3, 1, 2, "b")},
        {sub("c", "a", 1), false, entry(3, 1, 0, "a", 1)}, {{}, true, entry(3, 1, 2, "b")},
        {long_sub, true, entry(3, 1, 2, "ab")}};
    for (const auto &[acl, add, bytes] : rows) {
        Acl a(acl), b(acl);
        Entry e(bytes);
        auto step = [&, add = add](sec_acl_buffer_t buf) {
            return add ? sec_add_acle_to_acl(e.e, 0, buf) : sec_del_acle_from_acl(e.e, 0, buf);
        };
        ASSERT_EQ(step(&b.d), 0);
        void *before = a.d.value;
        cu_set_no_error_1();
        qvtest::alloc_failure_sweep([&] { return step(&a.d); }, [&, &acl = acl](int rc, bool failed) {
            cu_set_no_error_1();  // the thread's error record is not a leak
            EXPECT_EQ(rc, failed ? 6 : 0);
            EXPECT_EQ(a.bytes(), failed ? acl : b.bytes());
            if (failed) {
                EXPECT_EQ(a.d.value, before);
                return;
            }
            free(a.d.value);
            a.d = {0, nullptr};
            if (!acl.empty()) {
                EXPECT_EQ(sec_create_acl_from_data(int32_t(acl.size()), (void *)acl.data(), &a.d), 0);
            }
            before = a.d.value;
        });
    }    // An entry list is freed whole (a block left shows as a leak) and emptied.
    qvtest::alloc_failure_sweep(
        [] {
            auto *list = static_cast<sec_acle_list_t>(malloc(sizeof(sec_acle_list_desc)));
            if (list == nullptr) return 6;
            list->elements = static_cast<sec_acle_t>(malloc(32));
            return sec_release_acle_list(&list) + (list != nullptr);
        },
        [](int rc, bool) { EXPECT_NE(rc, 1); }, [] { sec_release_acle_list(nullptr); });
}

// ---- The access check ----

struct Client {
    uint32_t mech = 0;
    std::string name, mname;
    std::vector<std::string> groups;
};

// Which bits the entries grant, read straight from the rules.
uint32_t model_grant(const std::vector<Grant> &acl, const sec_acl_types_desc &t, const Client &c) {
    uint32_t bits = 0;
    for (const Grant &g : acl) {
        const int ty = g.type;
        const bool own = c.mech != 0 && g.mech == c.mech;
        if ((ty == t.anyone && (g.mech == 0 || own)) ||
            (own && (ty == t.authenticated || (ty == t.network_name && g.id == c.name) ||
                     (ty == t.mapped_name && !c.mname.empty() && g.id == c.mname) ||
                     (ty == t.group && std::count(c.groups.begin(), c.groups.end(), g.id) > 0))))
            bits |= g.perm;
    }
    return bits;
}

uint32_t check(const sec_acl_buffer_desc &acl, const sec_acl_types_desc &t, const Client &c) {
    std::vector<const char *> groups;
    for (const std::string &g : c.groups) groups.push_back(g.c_str());
    sec_acl_client_desc d{c.mech, c.mech ? c.name.c_str() : nullptr, c.mname.empty() ? nullptr : c.mname.c_str(),
                          int32_t(groups.size()), groups.data()};
    uint32_t granted = 0;
    EXPECT_EQ(sec_check_acl_client(const_cast<sec_acl_buffer_t>(&acl), &t, &d, 0xffffffff, &granted), 0);
    return granted;
}

TEST(AclCheck, TypesAndIdentityContexts) {
    Acl a;
    build(a, {{3, 5, 0x1, "alice"}, {4, 5, 0x2, "staff"}, {1, 5, 0x4, ""}, {2, 0, 0x8, ""}, {3, 6, 0x10, "bob"},
              {2, 5, 0x20, ""}, {3, 0, 0x40, "alice"}});
    // "Any authenticated client" or "anyone" may not be a type that carries an identifier.
    sec_acl_client_desc anon{0, nullptr, nullptr, 0, nullptr};
    uint32_t bits = 0;
    for (sec_acl_types_desc t : {sec_acl_types_desc{-1, -1, -1, 3, -1}, sec_acl_types_desc{-1, -1, -1, -1, 4}})
        EXPECT_EQ(sec_check_acl_client(&a.d, &t, &anon, 1, &bits), SEC_S_BAD_ARGUMENT);
    // One identifier twice: the search meets the bound it already holds,
    // which only a damaged sub-ACL shows.
    Acl twice(acl_of({{3, 5, {entry(3, 5, 1, "b"), entry(3, 5, 1, "b")}}}));
    sec_acl_client_desc below_both{5, const_cast<char *>("a"), nullptr, 0, nullptr};
    EXPECT_EQ(sec_check_acl_client(&twice.d, &kTypes, &below_both, 1, &bits), SEC_S_BAD_BUFFER);

    // Identity contexts: their names and groups; unmapped, the name alone.
    sec_mpm_entry_desc mpm{};
    mpm.code = 5;
    char name[] = "alice", group[] = "staff";
    sec_buffer_desc groups[1] = {{6, group}};
    sec_ctx_token_desc id{};
    id.magic = SEC_CTX_TOKEN_MAGIC;
    id.state = SEC_CTX_S_COMPLETE | SEC_CTX_S_IDENTITY | SEC_CTX_S_AUTHENTICATED | SEC_CTX_S_MAPPED;
    id.mdata.mpm = &mpm;
    id.privset = {name, nullptr, 1, groups};
    sec_ctx_token_desc unmapped = id, unauth = id, open = id;
    unmapped.state &= ~SEC_CTX_S_MAPPED;
    unauth.state &= ~SEC_CTX_S_AUTHENTICATED;
    open.state &= ~SEC_CTX_S_COMPLETE;
    sec_status_desc st;
    for (auto [ctx, requested, want] : {std::tuple{&id, 0xffu, 0x2fu}, {&id, 0x2u, 0x2u}, {&unmapped, 0xffu, 0x2du},
                                        {&unauth, 0xffu, 0x8u}}) {
        uint32_t got = 0;
        EXPECT_EQ(sec_check_acl_access(&st, ctx, &a.d, nullptr, requested, &got), 0);
        EXPECT_EQ(got, want);
    }
}

// Random ACLs built through the library, random clients: the check grants
// what the model grants. Identifiers, mechanisms and bits are drawn so that
// their bytes look like entry fields (small values, the types' own bytes),
// which is what could mislead the search; one ACL in a hundred is large.
TEST(AclCheck, AgreesWithTheModel) {
    std::mt19937 rng(4);
    auto pick = [&](uint32_t n) { return rng() % n; };
    const std::string alphabet("\x01\x03\x04\x11" "ab");
    auto id = [&] {
        std::string s;
        for (uint32_t n = 1 + pick(pick(8) == 0 ? 40 : 4); n > 0; --n) s += alphabet[pick(alphabet.size())];
        return s;
    };
    const uint32_t mechs[] = {0, 0x00030003, 0x01000000, 0x00000003};
    const uint32_t perms[] = {0x1, 0x300, 0x00030000, 0x04000000, 0x80000001};
    int granted = 0;
    for (int round = 0; round < 2000; ++round) {
        std::vector<Grant> grants;
        std::vector<std::string> names;
        for (int n = round % 100 == 0 ? 3000 : int(pick(40)); n > 0; --n) {
            Grant g{uint16_t(1 + pick(5)), mechs[pick(4)], perms[pick(5)], ""};
            if (g.type == 3 || g.type == 4) g.id = id(), names.push_back(g.id);
            grants.push_back(g);
        }
        Acl a;
        const std::vector<Grant> kept = build(a, grants);
        for (int k = 0; k < 5; ++k) {
            Client c{mechs[pick(4)], "", "", {}};
            auto some = [&] { return !names.empty() && pick(2) ? names[pick(names.size())] : id(); };
            if (c.mech != 0) {
                c.name = some();
                c.mname = pick(2) ? some() : "";
                for (uint32_t g = pick(4); g > 0; --g) c.groups.push_back(some());
            }
            const sec_acl_types_desc types = pick(2) ? kTypes : sec_acl_types_desc{4, 3, -1, 2, 5};
            const uint32_t got = check(a.d, types, c);
            ASSERT_EQ(got, model_grant(kept, types, c)) << "round " << round << " client " << k;
            granted += got != 0;
        }
    }
    EXPECT_GT(granted, 3000);
}

// A security context: its mechanism names the client and maps it, and the
// mapping gives the groups; a mechanism that cannot name it stops the check.
using AclSecurityContext = qvtest::HandBuiltContextFixture;

TEST_F(AclSecurityContext, NamesAndGroupsComeFromTheMechanism) {
    Acl a;
    build(a, {{3, kCode, 0x1, "qvtest_client@example"}, {4, kCode, 0x2, "qvgrp"}, {3, kCode, 0x4, "qvtest_user"}});
    const sec_acl_types_desc mapped{-1, 3, 4, 1, 2};
    sec_status_desc st;
    uint32_t got = 0;
    EXPECT_EQ(sec_check_acl_access(&st, &token_, &a.d, nullptr, 0xff, &got), 0);
    EXPECT_EQ(got, 0x3u);
    EXPECT_EQ(sec_check_acl_access(&st, &token_, &a.d, &mapped, 0xff, &got), 0);
    EXPECT_EQ(got, 0x6u);
    mpm_.behaviour(QVTEST_MPM_GET_CLIENT_NAME).maj_stat = 9;
    EXPECT_EQ(sec_check_acl_access(&st, &token_, &a.d, nullptr, 0xff, &got), SEC_S_MPM_FAILURE);
    EXPECT_EQ(st.maj_stat, 9u);
    EXPECT_EQ(got, 0u);
}

// ---- qvsec acl ----

TEST(AclTool, EditsShowsChecksAndRefusesDamage) {
    qvtest::TempDir dir;
    const std::string f = dir.path() + "/a.acl", bad = dir.write("bad.acl", std::string("\xb0\xbc\x0d\xe1\0\0\0\x14", 8));
    auto qvsec = [&](std::vector<std::string> args) {
        args.insert(args.begin(), "acl");
        return qvtest::run_tool(QVSEC_PATH, args, {{"QV_SEC_CONFIG", "/nonexistent"}});
    };
    const std::vector<std::tuple<std::vector<std::string>, int, std::string>> rows = {
        {{"add", f, "3", "1", "0x5", "alice"}, 0, ""},
        {{"add", f, "4", "1", "0x10", "staff"}, 0, ""},
        {{"add", f, "2", "none", "0x100"}, 0, ""},
        {{"add", f, "3", "1", "0x2", "bob"}, 0, ""},
        {{"del", f, "3", "1", "alice"}, 0, ""},
        {{"del", f, "3", "1", "alice"}, 1, ""},
        {{"show", f}, 0, "  type 3  0x00000001 perm 0x00000002  bob\n"},
        {{"check", f, "1", "bob", "staff"}, 0, "granted 0x00000112\n  type 3  0x00000001 perm 0x00000002  bob\n"},
        {{"check", f, "none"}, 0, "granted 0x00000100\n  type 2  none       perm 0x00000100  \n"},
        {{"add", f, "3", "1", "0x5"}, 2, "qvsec acl: "},  // and its reason
        {{"add", bad, "3", "1", "0x5", "x"}, 1, "damaged ACL at offset 0"},
    };
    for (const auto &[args, status, out] : rows) {
        qvtest::ToolRun r = qvsec(args);
        EXPECT_EQ(r.status, status) << args[0] << " " << r.err;
        EXPECT_NE((r.out + r.err).find(out), std::string::npos) << r.out << r.err;
    }
    Acl expect;
    build(expect, {{3, 1, 0x2, "bob"}, {4, 1, 0x10, "staff"}, {2, 0, 0x100, ""}});
    const std::string file = qvtest::read_file(f);
    EXPECT_EQ(to_hex(Bytes(file.begin(), file.end())), to_hex(expect.bytes()));
    qvtest::ToolRun r = qvsec({"show", bad});
    EXPECT_EQ(r.err, "qvsec: " + bad + ": damaged ACL at offset 0: not an ACL (no ACL head)\n");
    EXPECT_EQ(qvtest::read_file(bad).size(), 8u);  // left as it was, and nothing left beside it
    auto files = std::filesystem::directory_iterator(dir.path());
    EXPECT_EQ(std::distance(begin(files), end(files)), 2);
}

}  // namespace
