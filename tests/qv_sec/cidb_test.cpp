// CIDBs: the bytes written for each shape against buffers built by hand from
// the layout, and the reader's verdict on broken buffers (every cut and every
// bent length field is refused or read within bounds).
#include <gtest/gtest.h>

#include <clocale>
#include <cstring>
#include <memory>
#include <string>

#include "identity_fixture.h"
#include "sec_test_util.h"

namespace {

using ctxtest::be32;
using ctxtest::Bytes;
using ctxtest::text;
using qvtest::be16;
using qvtest::operator+;
const auto name = qvtest::cidb_field;
const auto head = [](qv_uint32_t mech, qv_uint32_t flags) { return qvtest::cidb_head(mech, flags); };
constexpr qv_uint64_t kNode = 0x0123456789abcdefull;

struct Decoded {
    qv_int32_t rc = -1;
    qv_uint32_t mech = 0, flags = 0;
    int version = 0;
    qv_uint64_t node = 0;
    sec_privset_info_desc ps{};
    ~Decoded() { sec__free_privset_info(&ps); }
    std::string text() const { return qvtest::privset_text(ps); }
};

// Reads bytes from a heap block of exactly their size, so that a read past
// the end is caught by the address sanitizer.
std::unique_ptr<Decoded> decode(const Bytes &b) {
    auto d = std::make_unique<Decoded>();
    std::unique_ptr<uint8_t[]> copy(new uint8_t[b.size() + 1]);
    std::memcpy(copy.get(), b.data(), b.size());
    sec_buffer_desc in{static_cast<qv_int32_t>(b.size()), copy.get()};
    d->rc = sec__unwrap_cid_buff(&in, &d->mech, &d->version, &d->node, &d->flags, &d->ps);
    return d;
}

Bytes cut(Bytes b, size_t n) {
    b.resize(n);
    return b;
}

class Cidb : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        dir_ = new qvtest::TempDir;
        setenv("QV_NODE_ID_FILE", dir_->write("node_id", "0123456789abcdef\n").c_str(), 1);
        setlocale(LC_ALL, "C.UTF-8");
    }
    static void TearDownTestSuite() {
        unsetenv("QV_NODE_ID_FILE");
        delete dir_;
    }
    static qvtest::TempDir *dir_;
};
qvtest::TempDir *Cidb::dir_ = nullptr;

TEST_F(Cidb, EachShapeIsWrittenAndReadByteForByte) {
    char alice[] = "alice", bob[] = "bob", g1[] = "g1", staff[] = "staff";
    sec_buffer_desc groups[] = {{3, g1}, {6, staff}};
    const Bytes unauth = Bytes{SEC_BUF_CIDB, 1} + qvtest::kCidbNode + be32(0) + be32(0);
    struct Row {
        const char *shape;
        qv_uint32_t mech, flags;
        sec_privset_info_desc ps;
        Bytes bytes;
        const char *back;
    } rows[] = {
        // The flags field and the reserved word are never meaningful in the
        // unauthenticated form; they are written as zeros.
        {"unauthenticated: 18 bytes", 0, SEC_CIDB_F_MAPPING, {alice, bob, 2, groups}, unauth, "-|-|"},
        {"network name only", 0x12, 0, {alice, bob, 2, groups}, head(0x12, 0x200) + name("alice"), "alice|-|"},
        {"host-local", 0x00010002, SEC_CIDB_F_HOST_LOCAL, {alice, nullptr, 0, nullptr},
         head(0x00010002, 0x600) + name("alice"), "alice|-|"},
        {"mapping asked, none: L2 = 0 ends", 0x12, SEC_CIDB_F_MAPPING, {alice, nullptr, 2, groups},
         head(0x12, 0x400200) + name("alice") + be16(0), "alice|-|"},
        {"mapped name without groups", 0x12, SEC_CIDB_F_MAPPING, {alice, bob, 0, nullptr},
         head(0x12, 0x400200) + name("alice") + name("bob") + be32(0), "alice|bob|"},
        {"a count without its groups is no groups", 0x12, SEC_CIDB_F_MAPPING, {alice, bob, 2, nullptr},
         head(0x12, 0x400200) + name("alice") + name("bob") + be32(0), "alice|bob|"},
        {"mapped name and groups", 0x12, SEC_CIDB_F_MAPPING | SEC_CIDB_F_HOST_LOCAL, {alice, bob, 2, groups},
         head(0x12, 0x400600) + name("alice") + name("bob") + be32(2) + name("g1") + name("staff"),
         "alice|bob|g1/3,staff/6"},
    };
    for (Row &row : rows) {
        SCOPED_TRACE(row.shape);
        qvtest::SecBuffer out;
        ASSERT_EQ(sec__wrap_cid_buff(row.mech, 1, row.flags, &row.ps, out.get()), 0);
        EXPECT_EQ(qvtest::to_hex(out.bytes()), qvtest::to_hex(row.bytes));
        auto d = decode(row.bytes);
        ASSERT_EQ(d->rc, 0);
        EXPECT_EQ(d->mech, row.mech);
        EXPECT_EQ(d->version, 1);
        EXPECT_EQ(d->node, kNode);
        EXPECT_EQ(d->flags, row.mech == 0 ? 0u : row.flags | SEC_CIDB_F_AUTHENTICATED);
        EXPECT_EQ(d->text(), row.back);
    }
    // The node ID's byte order, through the exported helpers.
    qv_uint64_t wire = 0;
    std::memcpy(&wire, qvtest::kCidbNode.data(), sizeof wire);
    EXPECT_EQ(ntohl64(wire), kNode);
    EXPECT_EQ(htonl64(kNode), wire);
}

TEST_F(Cidb, ReaderVerdicts) {
    const Bytes unauth = Bytes{SEC_BUF_CIDB, 1} + qvtest::kCidbNode + be32(0) + be32(0);
    const Bytes mapped = head(0x12, 0x400200) + name("alice") + name("bob");
    Bytes odd_version = head(0x12, 0x200) + name("alice");
    odd_version[1] = 9;
    std::memcpy(&odd_version[18], "\xde\xad\xbe\xef", 4);  // the reserved word is not read
    struct Row {
        const char *what;
        Bytes bytes;
        qv_int32_t rc;
        const char *back;
    } rows[] = {
        {"17 bytes", cut(unauth, 17), 7, "-|-|"},
        {"another buffer type", Bytes{SEC_BUF_SEAL} + cut(unauth, 17), 7, "-|-|"},
        {"unauthenticated, bytes beyond the 18 ignored", unauth + Bytes{1, 2, 3}, 0, "-|-|"},
        {"authenticated, 21 bytes", cut(head(0x12, 0x200), 21), 7, "-|-|"},
        {"authenticated flag missing", head(0x12, 0x400000) + name("alice"), 7, "-|-|"},
        {"no room for L1", head(0x12, 0x200) + Bytes{0}, 7, "-|-|"},
        {"L1 = 1", head(0x12, 0x200) + be16(1) + Bytes{0}, 7, "-|-|"},
        {"name without its NUL", head(0x12, 0x200) + be16(5) + text("alice"), 7, "-|-|"},
        // "admin" with a tail would otherwise be read as "admin".
        {"NUL inside the name", head(0x12, 0x200) + be16(8) + text("admin") + Bytes{0, 'x', 0}, 7, "-|-|"},
        {"version and reserved word as found", odd_version, 0, "alice|-|"},
        {"L2 = 0 ends the buffer", head(0x12, 0x400200) + name("alice") + be16(0), 0, "alice|-|"},
        {"mapping flag, L2 missing", head(0x12, 0x400200) + name("alice"), 7, "-|-|"},
        {"group count missing", mapped, 7, "-|-|"},
        {"group count beyond the bytes", mapped + be32(0x7fffffff) + name("g1"), 7, "-|-|"},
        {"group name runs past the end", mapped + be32(2) + name("g1") + be16(9) + text("sta"), 7, "-|-|"},
        {"empty group name without NUL", mapped + be32(1) + be16(0), 7, "-|-|"},
        {"name not UTF-8", head(0x12, 0x200) + be16(3) + Bytes{0xc3, 0x28, 0}, SEC_S_CODESET, "-|-|"},
        {"groups read", mapped + be32(1) + name("wheel"), 0, "alice|bob|wheel/6"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        cu_set_no_error_1();
        auto d = decode(row.bytes);
        EXPECT_EQ(d->rc, row.rc);
        EXPECT_EQ(last_message(), row.rc == 0 ? -1 : row.rc == SEC_S_CODESET ? MSG_2650_079 : MSG_2650_005);
        EXPECT_EQ(d->text(), row.back);
    }
}

// A full CIDB cut anywhere, and each of its length fields bent to values
// around and far from the truth: each read is refused with code 7 or read
// within the bytes given (decode() copies to a block of exact size), and a
// refusal hands nothing out.
TEST_F(Cidb, EveryCutAndBentLengthIsRefusedOrReadInBounds) {
    const Bytes full = head(0x12, 0x400200) + name("alice") + name("bob") + be32(2) + name("g1") + name("staff");
    for (size_t n = 0; n < full.size(); ++n) {
        auto d = decode(cut(full, n));
        EXPECT_EQ(d->rc, SEC_S_BAD_BUFFER) << "cut at " << n;
        EXPECT_EQ(d->text(), "-|-|");
    }
    // Offsets of L1, L2, G and the two group lengths; G is four bytes.
    const size_t l1 = 22, l2 = l1 + 2 + 6, g = l2 + 2 + 4, lg1 = g + 4, lg2 = lg1 + 2 + 3;
    for (size_t at : {l1, l2, g + 2, lg1, lg2}) {
        for (unsigned v : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 0x7fu, 0x80u, 0xffu, 0x100u, 0xfffeu, 0xffffu}) {
            Bytes b = full;
            b[at] = static_cast<uint8_t>(v >> 8);
            b[at + 1] = static_cast<uint8_t>(v);
            auto d = decode(b);
            EXPECT_TRUE(d->rc == 0 || d->rc == SEC_S_BAD_BUFFER) << "field at " << at << " = " << v << ": " << d->rc;
            EXPECT_EQ(d->rc != 0 ? d->text() : "-|-|", "-|-|");
        }
    }
}

}  // namespace
