// ACL entries and buffers, their editing, the permission routines and the
// access check. Buffers are compared byte for byte with ones this test
// writes itself; edits of random sub-ACLs (in order, out of order, with odd
// stored lengths) against the editing tree written out plainly here; the
// access check against a plain scan of the entries the ACL was built from.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "alloc_failure.h"
#include "child_process.h"
#include "current_error.h"
#include "messages.h"
#include "qv_sec.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes be32(uint32_t v) { return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}; }
Bytes operator+(Bytes a, const Bytes &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// An entry as stored; pad is the number of zero bytes after the NUL (2 as
// made by sec_create_acle; other values make odd stored lengths).
Bytes entry(uint16_t type, uint32_t mech, uint32_t perm, const std::string &id = "", size_t pad = 2) {
    const bool with_id = type == 3 || type == 4;
    Bytes b = be32(0) + be32(mech) + be32(perm) + Bytes{uint8_t(type >> 8), uint8_t(type)};
    if (with_id) {
        b.insert(b.end(), id.begin(), id.end());
        b.push_back(0);
        b.insert(b.end(), pad, 0);
    } else {
        b.insert(b.end(), 2, 0);
    }
    Bytes len = be32(static_cast<uint32_t>(b.size()));
    std::copy(len.begin(), len.end(), b.begin());
    return b;
}

struct Sub {
    uint16_t type;
    uint32_t mech;
    std::vector<Bytes> entries;
};

Bytes acl_of(const std::vector<Sub> &subs) {
    int32_t total = 0;
    for (const Sub &s : subs) total += static_cast<int32_t>(s.entries.size());
    Bytes b = be32(SEC_ACL_HEAD_MAGIC) + be32(subs.empty() ? 0 : 16) + be32(1) + be32(uint32_t(total));
    for (size_t i = 0; i < subs.size(); ++i) {
        Bytes body;
        for (const Bytes &e : subs[i].entries) body = body + e;
        uint32_t next = i + 1 == subs.size() ? 0 : uint32_t(20 + body.size());
        b = b + be32(SEC_SUBACL_HEAD_MAGIC) + Bytes{uint8_t(subs[i].type >> 8), uint8_t(subs[i].type), 0, 0} +
            be32(subs[i].mech) + be32(next) + be32(uint32_t(subs[i].entries.size())) + body;
    }
    return b;
}

// The thread's error: id, message number and arguments as text.
struct Err {
    int id = 0, msg = 0;
    std::vector<std::string> args;
};

Err last_error() {
    Err out;
    cu_error_t *e = nullptr;
    if (cu_get_error_1(&e) != 0 || e == nullptr) return out;
    out.id = e->cu_error_id;
    out.msg = e->cu_msg_num;
    for (qv_uint32_t i = 0; i < e->cu_arg_cnt; ++i) {
        const cu_arg_t &a = e->cu_args[i];
        if (a.cu_arg_type == CU_ARG_STRING)
            out.args.push_back(a.cu_arg_value.cu_arg_string ? a.cu_arg_value.cu_arg_string : "(null)");
        else if (a.cu_arg_type == CU_ARG_INT || a.cu_arg_type == CU_ARG_LONG)
            out.args.push_back(std::to_string(a.cu_arg_value.cu_arg_long));
        else
            out.args.push_back(std::to_string(a.cu_arg_value.cu_arg_ulong));
    }
    cu_rel_error_1(e);
    return out;
}

// An ACL buffer owned by the test, made from bytes through the library.
struct Acl {
    sec_acl_buffer_desc d{0, nullptr};
    Acl() = default;
    explicit Acl(const Bytes &b) { EXPECT_EQ(sec_create_acl_from_data(int32_t(b.size()), (void *)b.data(), &d), 0); }
    ~Acl() { free(d.value); }
    Bytes bytes() const {
        auto *p = static_cast<const uint8_t *>(d.value);
        return p ? Bytes(p, p + d.length) : Bytes{};
    }
};

struct Entry {
    sec_acle_t e = nullptr;
    Entry(uint32_t type, uint32_t mech, uint32_t perm, const char *id) {
        EXPECT_EQ(sec_create_acle(mech, perm, type, const_cast<char *>(id), &e), 0);
    }
    explicit Entry(const Bytes &b) : e(static_cast<sec_acle_t>(malloc(b.size()))) { memcpy(e, b.data(), b.size()); }
    ~Entry() { free(e); }
    Bytes bytes() const { return Bytes((uint8_t *)e, (uint8_t *)e + be32v()); }
    uint32_t be32v() const {
        auto *p = reinterpret_cast<const uint8_t *>(e);
        return uint32_t(p[0]) << 24 | p[1] << 16 | p[2] << 8 | p[3];
    }
};

// One call with its expected return code, message number and leading
// message arguments.
struct CallRow {
    const char *what;
    std::function<int()> call;
    int rc;
    int msg;
    std::vector<std::string> args;
};

void run_rows(const std::vector<CallRow> &rows) {
    for (const CallRow &r : rows) {
        SCOPED_TRACE(r.what);
        cu_set_no_error_1();
        EXPECT_EQ(r.call(), r.rc);
        Err e = last_error();
        EXPECT_EQ(e.id, r.rc == 0 ? 0 : r.rc);
        if (r.rc != 0) {
            EXPECT_EQ(e.msg, r.msg);
        }
        for (size_t i = 0; i < r.args.size(); ++i) {
            ASSERT_LT(i, e.args.size());
            EXPECT_EQ(e.args[i], r.args[i]) << "argument " << i + 1;
        }
    }
}

char kAb[] = "ab";
char kEmpty[] = "";

TEST(AclEntry, CreateDisplayRelease) {
    sec_acle_t out = nullptr;
    run_rows({
        {"id type, id too", [&] { return sec_create_acle(0x10002, 5, 3, kAb, &out); }, 0, 0, {}},
        {"type above 16 bits", [&] { return sec_create_acle(1, 1, 0x10000, kAb, &out); }, 4, MSG_2650_031,
         {"sec_create_acle", "3", "65536"}},
        {"no id", [&] { return sec_create_acle(1, 1, 4, nullptr, &out); }, 4, MSG_2650_031, {"sec_create_acle", "4", "0"}},
        {"empty id", [&] { return sec_create_acle(1, 1, 3, kEmpty, &out); }, 4, MSG_2650_031, {"sec_create_acle", "4"}},
        {"id checked before output", [&] { return sec_create_acle(1, 1, 3, nullptr, nullptr); }, 4, MSG_2650_031,
         {"sec_create_acle", "4"}},
        {"no output", [&] { return sec_create_acle(1, 1, 2, nullptr, nullptr); }, 4, MSG_2650_031,
         {"sec_create_acle", "5", "0"}},
        {"display: no entry", [&] { return sec_display_acle_id(nullptr, nullptr); }, 4, MSG_2650_031,
         {"sec_display_acle_id", "1", "0"}},
        {"release: no entry", [&] { return sec_release_acle(nullptr); }, 4, MSG_2650_031,
         {"sec_del_acle_from_acl", "1", "0"}},
        {"release: entry NULL", [&] { sec_acle_t n = nullptr; return sec_release_acle(&n); }, 4, MSG_2650_031,
         {"sec_del_acle_from_acl", "1"}},
        {"release list: NULL", [&] { return sec_release_acle_list(nullptr); }, 0, 0, {}},
    });
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(qvtest::to_hex((uint8_t *)out, 19), "00000013000100020000000500036162000000");

    // Types without identifier ignore id and are 16 bytes.
    sec_acle_t plain = nullptr;
    ASSERT_EQ(sec_create_acle(7, 0xff, 2, kAb, &plain), 0);
    EXPECT_EQ(qvtest::to_hex((uint8_t *)plain, 16), "0000001000000007000000ff00020000");

    sec_buffer_desc id{0, nullptr};
    run_rows({
        {"display", [&] { return sec_display_acle_id(out, &id); }, 0, 0, {}},
        {"display: no identifier", [&] { return sec_display_acle_id(plain, &id); }, 4, MSG_2650_031,
         {"sec_display_acle_id", "1"}},
        {"display: no output", [&] { return sec_display_acle_id(out, nullptr); }, 4, MSG_2650_031,
         {"sec_display_acle_id", "2", "0"}},
    });
    ASSERT_EQ(id.length, 3);
    EXPECT_STREQ(static_cast<char *>(id.value), "ab");
    sec_release_buffer(&id);
    EXPECT_EQ(sec_release_acle(&out), 0);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(sec_release_acle(&plain), 0);

    auto *list = static_cast<sec_acle_list_t>(calloc(1, sizeof(sec_acle_list_desc)));
    list->elements = static_cast<sec_acle_t>(malloc(32));
    EXPECT_EQ(sec_release_acle_list(&list), 0);
    EXPECT_EQ(list, nullptr);
}

TEST(AclBuffer, FromDataAndRelease) {
    Bytes bad = acl_of({});
    bad[0] ^= 1;
    sec_acl_buffer_desc a{0, nullptr};
    sec_acl_buffer_desc tiny{3, kAb};
    Bytes good = acl_of({});
    run_rows({
        {"negative length", [&] { return sec_create_acl_from_data(-1, kAb, &a); }, 4, MSG_2650_031,
         {"sec_create_acl_from_data", "1"}},
        {"no data", [&] { return sec_create_acl_from_data(3, nullptr, &a); }, 4, MSG_2650_031,
         {"sec_create_acl_from_data", "2", "0"}},
        {"no output", [&] { return sec_create_acl_from_data(3, kAb, nullptr); }, 4, MSG_2650_031,
         {"sec_create_acl_from_data", "3", "0"}},
        {"copied unchecked", [&] { return sec_create_acl_from_data(16, bad.data(), &a); }, 0, 0, {}},
        {"bad magic: not released", [&] { return sec_release_acl(&a); }, 6, MSG_2650_038, {}},
        {"shorter than the magic", [&] { return sec_release_acl(&tiny); }, 6, MSG_2650_038, {}},
        {"no buffer", [&] { return sec_release_acl(nullptr); }, 4, MSG_2650_031, {"sec_release_acl", "1"}},
    });
    EXPECT_EQ(Acl(good).bytes(), good);
    free(a.value);  // the copy the failed release kept
    a = {0, nullptr};
    EXPECT_EQ(sec_create_acl_from_data(0, nullptr, &a), 0);
    EXPECT_EQ(a.value, nullptr);
    EXPECT_EQ(sec_release_acl(&a), 0);  // empty: not an error
    ASSERT_EQ(sec_create_acl_from_data(16, good.data(), &a), 0);
    EXPECT_EQ(sec_release_acl(&a), 0);
    EXPECT_EQ(a.value, nullptr);
    EXPECT_EQ(a.length, 0);
}

// ---- Editing ----

struct Op {
    bool add;
    uint16_t type;
    uint32_t mech;
    uint32_t perm;
    const char *id;
};

// Applies ops from the empty ACL; each must succeed.
Bytes edited(const std::vector<Op> &ops) {
    Acl a;
    for (const Op &o : ops) {
        Entry e(o.type, o.mech, o.perm, o.id);
        int rc = o.add ? sec_add_acle_to_acl(e.e, 0, &a.d) : sec_del_acle_from_acl(e.e, 0, &a.d);
        EXPECT_EQ(rc, 0) << o.id;
    }
    return a.bytes();
}

TEST(AclEdit, BuiltBuffers) {
    // The first add to an empty ACL, written out.
    EXPECT_EQ(qvtest::to_hex(edited({{true, 3, 0x10002, 5, "b"}})),
              "b0bc0de1000000100000000100000001"
              "b0bc0de2000300000001000200000000" "00000001"
              "000000120001000200000005000362000000");
    struct Row {
        const char *what;
        std::vector<Op> ops;
        Bytes want;
    };
    const std::vector<Row> rows = {
        {"stored in order", {{true, 3, 1, 1, "b"}, {true, 3, 1, 2, "a"}, {true, 3, 1, 3, "c"}},
         acl_of({{3, 1, {entry(3, 1, 2, "a"), entry(3, 1, 1, "b"), entry(3, 1, 3, "c")}}})},
        {"same identifier replaces", {{true, 3, 1, 1, "a"}, {true, 3, 1, 9, "a"}},
         acl_of({{3, 1, {entry(3, 1, 9, "a")}}})},
        {"one entry per type without identifier", {{true, 1, 1, 1, "x"}, {true, 1, 1, 2, "y"}},
         acl_of({{1, 1, {entry(1, 1, 2)}}})},
        {"mechanisms and types apart, in first-use order",
         {{true, 4, 2, 1, "g"}, {true, 3, 1, 1, "u"}, {true, 4, 1, 1, "h"}, {true, 4, 2, 5, "f"}},
         acl_of({{4, 2, {entry(4, 2, 5, "f"), entry(4, 2, 1, "g")}}, {3, 1, {entry(3, 1, 1, "u")}},
                 {4, 1, {entry(4, 1, 1, "h")}}})},
        {"delete in a sub-ACL that is not last",
         {{true, 3, 1, 1, "a"}, {true, 3, 1, 1, "bb"}, {true, 3, 2, 1, "z"}, {false, 3, 1, 0, "a"}},
         acl_of({{3, 1, {entry(3, 1, 1, "bb")}}, {3, 2, {entry(3, 2, 1, "z")}}})},
        {"deleting the last entry keeps the sub-ACL",
         {{true, 3, 1, 1, "a"}, {true, 2, 0, 1, ""}, {false, 3, 1, 0, "a"}},
         acl_of({{3, 1, {}}, {2, 0, {entry(2, 0, 1)}}})},
    };
    for (const Row &r : rows) EXPECT_EQ(qvtest::to_hex(edited(r.ops)), qvtest::to_hex(r.want)) << r.what;
}

TEST(AclEdit, FailuresLeaveTheBufferAsItWas) {
    const Bytes abc = acl_of({{3, 1, {entry(3, 1, 1, "a"), entry(3, 1, 1, "c")}}, {4, 1, {entry(4, 1, 1, "g")}}});
    auto damaged = [&](size_t at, uint8_t v) {
        Bytes b = abc;
        b[at] = v;
        return b;
    };
    Bytes truncated(abc.begin(), abc.end() - 1);
    Bytes counted = damaged(16 + 19, 3);  // first sub-ACL's count
    struct Row {
        const char *what;
        Bytes acl;
        bool add;
        Bytes entry;
        int rc, msg;
        std::vector<std::string> args;
    };
    const std::vector<Row> rows = {
        {"delete: absent identifier", abc, false, entry(3, 1, 0, "b"), 18, MSG_2650_035, {"3", "b"}},
        {"delete: no sub-ACL", abc, false, entry(3, 9, 0, "a"), 18, MSG_2650_035, {"3", "a"}},
        {"delete: empty sub-ACL", acl_of({{3, 1, {}}}), false, entry(3, 1, 0, "a"), 18, MSG_2650_035, {}},
        {"delete: empty ACL", {}, false, entry(4, 1, 0, "q"), 18, MSG_2650_035, {"4", "q"}},
        {"duplicates stored", acl_of({{3, 1, {entry(3, 1, 1, "b"), entry(3, 1, 1, "a"), entry(3, 1, 2, "b")}}}), true,
         entry(3, 1, 0, "z"), 23, MSG_2650_033, {}},
        {"head magic", damaged(0, 0), true, entry(3, 1, 0, "b"), 6, MSG_2650_038, {}},
        {"sub-ACL magic", damaged(16, 0), true, entry(3, 1, 0, "b"), 6, MSG_2650_038, {}},
        {"later sub-ACL magic", damaged(16 + 20 + 36, 0), true, entry(3, 1, 0, "b"), 6, MSG_2650_038, {}},
        {"start offset", damaged(7, 20), true, entry(3, 1, 0, "b"), 6, MSG_2650_038, {}},
        {"next offset", damaged(16 + 15, 8), false, entry(4, 1, 0, "g"), 6, MSG_2650_038, {}},
        {"entry overruns", damaged(16 + 20 + 3, 0x40), false, entry(3, 1, 0, "a"), 6, MSG_2650_038, {}},
        {"entry shorter than a head", damaged(16 + 20 + 3, 8), true, entry(3, 1, 0, "a"), 6, MSG_2650_038, {}},
        {"count", counted, true, entry(3, 1, 0, "b"), 6, MSG_2650_038, {}},
        {"truncated", truncated, true, entry(4, 1, 0, "h"), 6, MSG_2650_038, {}},
        {"shorter than the head", Bytes(abc.begin(), abc.begin() + 9), true, entry(3, 1, 0, "b"), 6, MSG_2650_038, {}},
        {"entry without NUL", abc, true, Bytes{0, 0, 0, 16, 0, 0, 0, 1, 0, 0, 0, 1, 0, 3, 'x', 'y'}, 4, MSG_2650_031,
         {"sec_add_acle_to_acl", "1"}},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        Acl a(r.acl);
        void *before = a.d.value;
        Entry e(r.entry);
        cu_set_no_error_1();
        EXPECT_EQ(r.add ? sec_add_acle_to_acl(e.e, 1, &a.d) : sec_del_acle_from_acl(e.e, 1, &a.d), r.rc);
        Err err = last_error();
        EXPECT_EQ(err.msg, r.msg);
        for (size_t i = 0; i < r.args.size() && i < err.args.size(); ++i) EXPECT_EQ(err.args[i], r.args[i]);
        EXPECT_EQ(a.d.value, before);
        EXPECT_EQ(a.bytes(), r.acl);
    }
    Acl a(abc);
    Entry e(3, 1, 1, "a");
    run_rows({
        {"add: no entry", [&] { return sec_add_acle_to_acl(nullptr, 0, &a.d); }, 4, MSG_2650_031,
         {"sec_add_acle_to_acl", "1", "0"}},
        {"add: no ACL", [&] { return sec_add_acle_to_acl(e.e, 0, nullptr); }, 4, MSG_2650_031,
         {"sec_add_acle_to_acl", "3", "0"}},
        {"delete: no entry", [&] { return sec_del_acle_from_acl(nullptr, 0, nullptr); }, 4, MSG_2650_031,
         {"sec_del_acle_from_acl", "1", "0"}},
        {"delete: no ACL", [&] { return sec_del_acle_from_acl(e.e, 0, nullptr); }, 4, MSG_2650_031,
         {"sec_del_acle_from_acl", "3", "0"}},
    });
}

// The editing tree, plainly: a node compares greater, the new one goes left.
struct Model {
    struct Node {
        const Bytes *e;
        int left = -1, right = -1;
        bool present = true;
    };
    std::vector<Node> nodes;
    static uint32_t len(const Bytes &e) { return uint32_t(e[0]) << 24 | e[1] << 16 | e[2] << 8 | e[3]; }
    static int cmp(const Bytes &a, const Bytes &b) {
        return strncmp((const char *)a.data() + 14, (const char *)b.data() + 14, std::max(len(a), len(b)) - 16);
    }
    // Index of the equal node, or -1 with *slot the link to fill.
    int find(const Bytes &e, int **slot, int *root) {
        *slot = root;
        while (**slot != -1) {
            Node &n = nodes[**slot];
            int c = cmp(*n.e, e);
            if (c == 0) return **slot;
            *slot = c > 0 ? &n.left : &n.right;
        }
        return -1;
    }
    void walk(int i, std::vector<Bytes> &out) {
        if (i == -1) return;
        walk(nodes[i].left, out);
        if (nodes[i].present) out.push_back(*nodes[i].e);
        walk(nodes[i].right, out);
    }
    // 0, 23 or 18; out the new entries.
    int edit(const std::vector<Bytes> &stored, const Bytes &x, bool add, std::vector<Bytes> &out) {
        nodes.clear();
        nodes.reserve(stored.size() + 1);
        int root = -1, *slot;
        for (const Bytes &e : stored) {
            if (find(e, &slot, &root) != -1) return 23;
            nodes.push_back({&e});
            *slot = int(nodes.size()) - 1;
        }
        int same = find(x, &slot, &root);
        if (add && same != -1) nodes[same].e = &x;
        if (add && same == -1) {
            nodes.push_back({&x});
            *slot = int(nodes.size()) - 1;
        }
        if (!add && same == -1) return 18;
        if (!add) nodes[same].present = false;
        walk(root, out);
        return 0;
    }
};

TEST(AclEdit, AgreesWithTheEditingTree) {
    std::mt19937 rng(11);
    auto pick = [&](int n) { return int(rng() % n); };
    const char *ids[] = {"a", "b", "ab", "abc", "b0", "\x7f", "ba", "c", "ca", "abd"};
    int counts[3] = {};
    for (int round = 0; round < 3000; ++round) {
        const bool odd = round % 3 == 2;  // odd stored lengths: padding 0, 1 or 4
        std::vector<Bytes> stored;
        std::set<std::string> seen;
        int n = pick(9);
        for (int i = 0; i < n; ++i) {
            std::string id = ids[pick(10)];
            if (round % 3 == 0 && !seen.insert(id).second) continue;
            stored.push_back(entry(3, 7, uint32_t(rng()), id, odd ? size_t(pick(2) ? 0 : 4) : 2));
        }
        if (round % 3 == 0)
            std::sort(stored.begin(), stored.end(), [](const Bytes &a, const Bytes &b) { return Model::cmp(a, b) < 0; });
        const Bytes x = entry(3, 7, uint32_t(rng()), ids[pick(10)], odd ? size_t(pick(3)) : 2);
        const bool add = pick(2) == 0;
        const Sub before{4, 7, {entry(4, 7, 1, "g")}}, after{3, 8, {entry(3, 8, 1, "z")}};
        Acl a(acl_of({before, {3, 7, stored}, after}));
        const Bytes original = a.bytes();
        Entry e(x);
        std::vector<Bytes> out;
        int want = Model().edit(stored, x, add, out);
        ++counts[want == 0 ? 0 : want == 18 ? 1 : 2];
        int rc = add ? sec_add_acle_to_acl(e.e, 0, &a.d) : sec_del_acle_from_acl(e.e, 0, &a.d);
        ASSERT_EQ(rc, want) << "round " << round;
        Bytes expect = want == 0 ? acl_of({before, {3, 7, out}, after}) : original;
        ASSERT_EQ(qvtest::to_hex(a.bytes()), qvtest::to_hex(expect)) << "round " << round;
    }
    EXPECT_GT(counts[0], 1000);
    EXPECT_GT(counts[1], 100);
    EXPECT_GT(counts[2], 100);
}

TEST(AclEdit, AllocationFailuresLeaveTheBuffer) {
    const Bytes sorted = acl_of({{3, 1, {entry(3, 1, 1, "a"), entry(3, 1, 1, "c")}}});
    const Bytes unsorted = acl_of({{3, 1, {entry(3, 1, 1, "c"), entry(3, 1, 1, "a")}}});
    const Bytes odd = acl_of({{3, 1, {entry(3, 1, 1, "c", 1), entry(3, 1, 1, "a", 1)}}});
    struct Row {
        Bytes acl;
        bool add;
        Bytes entry;
    };
    const std::vector<Row> rows = {{sorted, true, entry(3, 1, 2, "b")},   {sorted, true, entry(4, 1, 2, "b")},
                                   {sorted, false, entry(3, 1, 2, "c")},  {unsorted, true, entry(3, 1, 2, "b")},
                                   {odd, false, entry(3, 1, 0, "a", 1)}, {{}, true, entry(3, 1, 2, "b")}};
    for (const Row &r : rows) {
        Acl a(r.acl);
        Entry e(r.entry);
        Bytes done;
        {
            Acl b(r.acl);
            ASSERT_EQ(r.add ? sec_add_acle_to_acl(e.e, 0, &b.d) : sec_del_acle_from_acl(e.e, 0, &b.d), 0);
            done = b.bytes();
        }
        void *before = a.d.value;
        cu_set_no_error_1();
        qvtest::alloc_failure_sweep(
            [&] { return r.add ? sec_add_acle_to_acl(e.e, 0, &a.d) : sec_del_acle_from_acl(e.e, 0, &a.d); },
            [&](int rc, bool failed) {
                cu_set_no_error_1();  // the thread's error record is not a leak
                if (failed) {
                    EXPECT_EQ(rc, 6);
                    EXPECT_EQ(a.d.value, before);
                    EXPECT_EQ(a.bytes(), r.acl);
                    return;
                }
                EXPECT_EQ(rc, 0);
                EXPECT_EQ(a.bytes(), done);
                free(a.d.value);
                a.d = {0, nullptr};
                if (!r.acl.empty()) {
                    ASSERT_EQ(sec_create_acl_from_data(int32_t(r.acl.size()), (void *)r.acl.data(), &a.d), 0);
                }
                before = a.d.value;
            });
    }
}

// ---- The permission routines that grant nothing ----

TEST(AclPermission, PlaceholdersCheckAndGrantNothing) {
    sec_ctx_token_desc open{}, complete{};
    open.magic = complete.magic = SEC_CTX_TOKEN_MAGIC;
    complete.state = SEC_CTX_S_COMPLETE;
    Bytes good = acl_of({{3, 1, {entry(3, 1, 0xffffffff, "alice")}}}), bad = good;
    bad[3] = 0;
    sec_acl_buffer_desc valid{int32_t(good.size()), good.data()}, corrupt{int32_t(bad.size()), bad.data()},
        empty{0, nullptr};
    sec_buffer_desc cab{0, nullptr};
    sec_status_desc st;
    sec_boolean_t result = 7, mod = 7;
    auto ctx = [&](sec_status_t s, void *t, sec_acl_buffer_t a, sec_boolean_t *r, sec_boolean_t *m) {
        return sec_sec_verify_perm_from_ctx(s, t, 0xffffffff, a, r, m);
    };
    auto cab_ = [&](sec_status_t s, void *t, sec_buffer_t c, sec_acl_buffer_t a, sec_boolean_t *r, sec_boolean_t *m) {
        return sec_sec_verify_perm_from_cab(s, t, c, 0xffffffff, a, r, m);
    };
    const char *kCtx = "sec_sec_verify_perm_from_ctx", *kCab = "sec_sec_verify_perm_from_cab";
    run_rows({
        {"ctx: no status", [&] { return ctx(nullptr, &open, &valid, &result, &mod); }, 4, MSG_2650_031, {kCtx, "1", "0"}},
        {"ctx: no token", [&] { return ctx(&st, nullptr, &valid, &result, &mod); }, 4, MSG_2650_031, {kCtx, "2", "0"}},
        {"ctx: no acl", [&] { return ctx(&st, &open, nullptr, &result, &mod); }, 4, MSG_2650_031, {kCtx, "4", "0"}},
        {"ctx: no result", [&] { return ctx(&st, &open, &valid, nullptr, &mod); }, 4, MSG_2650_031, {kCtx, "5", "0"}},
        {"ctx: no mod", [&] { return ctx(&st, &open, &valid, &result, nullptr); }, 4, MSG_2650_031, {kCtx, "6", "0"}},
        {"ctx: complete context", [&] { return ctx(&st, &complete, &valid, &result, &mod); }, 4, MSG_2650_003, {}},
        {"ctx: corrupt", [&] { return ctx(&st, &open, &corrupt, &result, &mod); }, 23, MSG_2650_038, {}},
        {"cab: no status", [&] { return cab_(nullptr, &open, &cab, &valid, &result, &mod); }, 4, MSG_2650_031,
         {kCab, "1", "0"}},
        {"cab: no token", [&] { return cab_(&st, nullptr, &cab, &valid, &result, &mod); }, 4, MSG_2650_031, {kCab, "2"}},
        {"cab: no cab", [&] { return cab_(&st, &open, nullptr, &valid, &result, &mod); }, 4, MSG_2650_031, {kCab, "4"}},
        {"cab: no acl", [&] { return cab_(&st, &open, &cab, nullptr, &result, &mod); }, 4, MSG_2650_031, {kCab, "5"}},
        {"cab: no result", [&] { return cab_(&st, &open, &cab, &valid, nullptr, &mod); }, 4, MSG_2650_031, {kCab, "6"}},
        {"cab: no mod", [&] { return cab_(&st, &open, &cab, &valid, &result, nullptr); }, 4, MSG_2650_031, {kCab, "7"}},
        {"cab: complete context", [&] { return cab_(&st, &complete, &cab, &valid, &result, &mod); }, 4, MSG_2650_003, {}},
        // The ACL is read from the fifth argument, acl.
        {"cab: corrupt acl", [&] { return cab_(&st, &open, &cab, &corrupt, &result, &mod); }, 23, MSG_2650_038, {}},
    });
    EXPECT_EQ(result, 7);  // failures leave the results alone
    EXPECT_EQ(mod, 7);
    for (sec_acl_buffer_t a : {&valid, &empty}) {
        result = mod = 7;
        EXPECT_EQ(ctx(&st, &open, a, &result, &mod), 0);
        EXPECT_EQ(result + mod, 0);
        result = mod = 7;
        EXPECT_EQ(cab_(&st, &open, &cab, a, &result, &mod), 0);
        EXPECT_EQ(result + mod, 0);
    }
}

// ---- The access check ----

constexpr sec_acl_types_desc kTypes = SEC_ACL_TYPES_DEFAULT;

struct Grant {
    uint16_t type;
    uint32_t mech, perm;
    std::string id;
};

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
        bool match = false;
        if (ty == t.anyone) match = g.mech == 0 || (c.mech != 0 && g.mech == c.mech);
        if (c.mech != 0 && g.mech == c.mech) {
            match = match || ty == t.authenticated || (ty == t.network_name && g.id == c.name) ||
                    (ty == t.mapped_name && !c.mname.empty() && g.id == c.mname) ||
                    (ty == t.group && std::count(c.groups.begin(), c.groups.end(), g.id) > 0);
        }
        if (match) bits |= g.perm;
    }
    return bits;
}

int check(const sec_acl_buffer_desc &acl, const sec_acl_types_desc *t, const Client &c, uint32_t *granted) {
    std::vector<const char *> groups;
    for (const std::string &g : c.groups) groups.push_back(g.c_str());
    sec_acl_client_desc d{c.mech, c.mech ? c.name.c_str() : nullptr, c.mname.empty() ? nullptr : c.mname.c_str(),
                          int32_t(groups.size()), groups.data()};
    return sec_check_acl_client(const_cast<sec_acl_buffer_t>(&acl), t, &d, 0xffffffff, granted);
}

// Builds the ACL through the editing routines; later grants of one
// identifier replace earlier ones, as the model must see too.
std::vector<Grant> build(Acl &a, std::vector<Grant> grants) {
    std::vector<Grant> kept;
    for (const Grant &g : grants) {
        Entry e(g.type, g.mech, g.perm, g.id.c_str());
        EXPECT_EQ(sec_add_acle_to_acl(e.e, 0, &a.d), 0);
        auto same = [&](const Grant &k) {
            return k.type == g.type && k.mech == g.mech && (k.id == g.id || !(g.type == 3 || g.type == 4));
        };
        kept.erase(std::remove_if(kept.begin(), kept.end(), same), kept.end());
        kept.push_back(g);
    }
    return kept;
}

TEST(AclCheck, NamedCases) {
    Acl a;
    build(a, {{3, 5, 0x1, "alice"}, {4, 5, 0x2, "staff"}, {1, 5, 0x4, ""}, {2, 0, 0x8, ""}, {3, 6, 0x10, "bob"},
              {2, 5, 0x20, ""}, {3, 0, 0x40, "alice"}});
    struct Row {
        const char *what;
        Client c;
        uint32_t want;
    };
    const std::vector<Row> rows = {
        {"name, group, any authenticated, anyone", {5, "alice", "", {"staff"}}, 0x2f},
        {"another mechanism's entry does not apply", {5, "bob", "", {}}, 0x2c},
        {"unauthenticated: anyone of mechanism 0 only", {0, "", "", {}}, 0x8},
        {"other mechanism: its own entries", {6, "bob", "", {"staff"}}, 0x18},
        {"identifiers compare exactly", {5, "alic", "", {"staf", "staff0"}}, 0x2c},
    };
    for (const Row &r : rows) {
        uint32_t got = 0;
        EXPECT_EQ(check(a.d, nullptr, r.c, &got), 0) << r.what;
        EXPECT_EQ(got, r.want) << r.what;
    }
    sec_acl_types_desc shared = kTypes, no_id = kTypes, mapped = {-1, 3, 4, 1, 2};
    shared.anyone = 1;
    no_id.group = 5;
    uint32_t got = 9;
    Client alice{5, "alice", "", {}};
    EXPECT_EQ(check(a.d, &mapped, {5, "bob", "alice", {}}, &got), 0);
    EXPECT_EQ(got, 0x2du);
    sec_acl_client_desc nameless{5, nullptr, nullptr, 0, nullptr};
    Bytes broken = a.bytes();
    broken[16 + 20 + 4 + 3] ^= 1;  // the first entry's mechanism
    Acl damaged(broken);
    run_rows({
        {"types shared", [&] { return check(a.d, &shared, alice, &got); }, 4, MSG_2650_031, {"sec_check_acl_client", "2"}},
        {"a name type without identifier", [&] { return check(a.d, &no_id, alice, &got); }, 4, MSG_2650_031, {"sec_check_acl_client", "2"}},
        {"no acl", [&] { return sec_check_acl_client(nullptr, nullptr, &nameless, 1, &got); }, 4, MSG_2650_031,
         {"sec_check_acl_client", "1"}},
        {"authenticated without a name", [&] { return sec_check_acl_client(&a.d, nullptr, &nameless, 1, &got); }, 4,
         MSG_2650_031, {"sec_check_acl_client", "3"}},
        {"damaged entry", [&] { return check(damaged.d, nullptr, alice, &got); }, 7, MSG_2650_038, {}},
    });
    EXPECT_EQ(got, 0u);
}

TEST(AclCheck, ContextsAsClients) {
    Acl a;
    build(a, {{3, 5, 0x1, "alice"}, {4, 5, 0x2, "staff"}, {2, 0, 0x8, ""}});
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
    struct Row {
        sec_ctx_token_desc *ctx;
        uint32_t requested, want;
    };
    for (Row r : {Row{&id, 0xff, 0xb}, Row{&id, 0x2, 0x2}, Row{&unmapped, 0xff, 0x9}, Row{&unauth, 0xff, 0x8}}) {
        uint32_t got = 0;
        EXPECT_EQ(sec_check_acl_access(&st, r.ctx, &a.d, nullptr, r.requested, &got), 0);
        EXPECT_EQ(got, r.want);
    }
    uint32_t got = 1;
    sec_acl_types_desc bad = kTypes;
    bad.network_name = 1;
    run_rows({
        {"no status", [&] { return sec_check_acl_access(nullptr, &id, &a.d, nullptr, 1, &got); }, 4, MSG_2650_031,
         {"sec_check_acl_access", "1"}},
        {"no context", [&] { return sec_check_acl_access(&st, nullptr, &a.d, nullptr, 1, &got); }, 4, MSG_2650_031,
         {"sec_check_acl_access", "2"}},
        {"no acl", [&] { return sec_check_acl_access(&st, &id, nullptr, nullptr, 1, &got); }, 4, MSG_2650_031,
         {"sec_check_acl_access", "3"}},
        {"bad types", [&] { return sec_check_acl_access(&st, &id, &a.d, &bad, 1, &got); }, 4, MSG_2650_031,
         {"sec_check_acl_access", "4"}},
        {"no output", [&] { return sec_check_acl_access(&st, &id, &a.d, nullptr, 1, nullptr); }, 4, MSG_2650_031,
         {"sec_check_acl_access", "6"}},
        {"not complete", [&] { return sec_check_acl_access(&st, &open, &a.d, nullptr, 1, &got); }, 5, MSG_2650_003, {}},
    });
    EXPECT_EQ(got, 0u);
}

// Random ACLs built through the library, random clients: the check grants
// what the model grants. Identifiers, mechanisms and permission bits are
// drawn so that their bytes look like entry fields (small values, the
// types' own bytes), which is what could mislead the search.
TEST(AclCheck, AgreesWithTheModel) {
    std::mt19937 rng(4);
    auto pick = [&](uint32_t n) { return rng() % n; };
    const std::string alphabet = std::string("\x01\x03\x04\x11", 4) + "ab";
    auto id = [&] {
        std::string s;
        for (uint32_t n = 1 + pick(pick(8) == 0 ? 40 : 4); n > 0; --n) s += alphabet[pick(alphabet.size())];
        return s;
    };
    const uint32_t mechs[] = {0, 0x00030003, 0x01000000, 0x00000003};
    const uint32_t perms[] = {0x1, 0x300, 0x00030000, 0x04000000, 0x80000001};
    int granted_some = 0;
    for (int round = 0; round < 2000; ++round) {
        std::vector<Grant> grants;
        std::vector<std::string> names;
        const int n = round % 100 == 0 ? 3000 : int(pick(40));
        for (int i = 0; i < n; ++i) {
            Grant g{uint16_t(1 + pick(5)), mechs[pick(4)], perms[pick(5)], ""};
            if (g.type == 3 || g.type == 4) g.id = id(), names.push_back(g.id);
            grants.push_back(g);
        }
        Acl a;
        const std::vector<Grant> kept = build(a, grants);
        for (int k = 0; k < 5; ++k) {
            Client c;
            c.mech = mechs[pick(4)];
            auto some = [&] { return !names.empty() && pick(2) ? names[pick(names.size())] : id(); };
            if (c.mech != 0) {
                c.name = some();
                if (pick(2)) c.mname = some();
                for (uint32_t g = pick(4); g > 0; --g) c.groups.push_back(some());
            }
            const sec_acl_types_desc types = pick(2) ? kTypes : sec_acl_types_desc{4, 3, -1, 2, 5};
            uint32_t got = 0;
            ASSERT_EQ(check(a.d, &types, c, &got), 0) << "round " << round;
            ASSERT_EQ(got, model_grant(kept, types, c)) << "round " << round << " client " << k;
            granted_some += got != 0;
        }
    }
    EXPECT_GT(granted_some, 3000);
}

}  // namespace
