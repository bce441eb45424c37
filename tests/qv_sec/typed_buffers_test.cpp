#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "errors.h"
#include "sec_test_util.h"
#include "sec_buffer.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

sec_buffer_desc view(Bytes &v) { return {static_cast<qv_int32_t>(v.size()), v.empty() ? nullptr : v.data()}; }

TEST(TypedBuffers, WrapCcdb) {
    struct Case {
        const char *what;
        Bytes body;
        bool null_body;
        qv_uint32_t mech;
        int version;
        unsigned char seq, flags;
        std::string hex;
    } cases[] = {
        {"unauthenticated first CCDB", {}, true, 0, 2, 1, 0, "8202000000000100"},
        {"mechanism bytes in order", {0xaa}, false, 0x00010002, 2, 7, 1, "820200010002" "0701" "aa"},
        {"version 1 has no sequence", {1, 2}, false, 5, 1, 9, 9, "820100000005" "0102"},
        {"version 0", {}, false, 0xffffffff, 0, 0, 0, "8200ffffffff"},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        sec_buffer_desc in = view(c.body);
        qvtest::SecBuffer out;
        ASSERT_EQ(sec__wrap_mech_ccdb(c.null_body ? nullptr : &in, c.mech, c.version, c.seq, c.flags, &out.d), 0);
        EXPECT_EQ(qvtest::to_hex(out.bytes()), c.hex);
        EXPECT_EQ(out.d.length, static_cast<qv_int32_t>(c.hex.size() / 2));
    }
}

TEST(TypedBuffers, UnwrapCcdb) {
    struct Case {
        const char *what;
        std::string hex;
        int rc, message;
        qv_uint32_t mech;
        int version;
        unsigned char seq, flags;
        std::string body;
    } cases[] = {
        {"version 2 with body", "82020000000a0301beef", 0, -1, 10, 2, 3, 1, "beef"},
        {"version 2 header only", "8202000000000100", 0, -1, 0, 2, 1, 0, ""},
        {"version 1 exactly 6 bytes", "820100000007", 0, -1, 7, 1, 0, 0, ""},
        {"version 0 with body", "82000000000701", 0, -1, 7, 0, 0, 0, "01"},
        {"version 2 of 7 bytes", "82020000000701", 7, MSG_2650_005, 0, 0, 0, 0, ""},
        {"version 3 of 7 bytes", "82030000000701", 9, MSG_2650_007, 0, 0, 0, 0, ""},
        {"five bytes", "8201000000", 7, MSG_2650_005, 0, 0, 0, 0, ""},
        {"wrong type", "860200000000", 7, MSG_2650_005, 0, 0, 0, 0, ""},
        {"empty", "", 7, MSG_2650_005, 0, 0, 0, 0, ""},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        Bytes bytes = qvtest::from_hex(c.hex);
        sec_buffer_desc in = view(bytes);
        qv_uint32_t mech = 99;
        int version = 99;
        unsigned char seq = 99, flags = 99;
        qvtest::SecBuffer out;
        cu_set_no_error_1();
        ASSERT_EQ(sec__unwrap_mech_ccdb(&in, &mech, &version, &seq, &flags, &out.d), c.rc);
        EXPECT_EQ(last_message(), c.message);
        if (c.rc == 0) {
            EXPECT_EQ(mech, c.mech);
            EXPECT_EQ(version, c.version);
            EXPECT_EQ(seq, c.seq);
            EXPECT_EQ(flags, c.flags);
            EXPECT_EQ(qvtest::to_hex(out.bytes()), c.body);
            if (c.body.empty()) {
                EXPECT_EQ(out.d.value, nullptr);
            }
        } else {
            EXPECT_EQ(out.d.length, 0);
            EXPECT_EQ(out.d.value, nullptr);
        }
    }
}

TEST(TypedBuffers, UnwrapCcdbNullArguments) {
    qv_uint32_t mech = 1;
    int version = 1;
    unsigned char seq = 1, flags = 1;
    qvtest::SecBuffer out;
    EXPECT_EQ(sec__unwrap_mech_ccdb(nullptr, &mech, &version, &seq, &flags, &out.d), 7);
    EXPECT_EQ(mech, 0u);
    EXPECT_EQ(version, 0);
    EXPECT_EQ(seq, 0);
    Bytes bytes = qvtest::from_hex("8202000000000100");
    sec_buffer_desc in = view(bytes);
    EXPECT_EQ(sec__unwrap_mech_ccdb(&in, &mech, &version, &seq, &flags, nullptr), 7);
    // A length that claims more than a NULL value holds is not read.
    sec_buffer_desc lying{8, nullptr};
    EXPECT_EQ(sec__unwrap_mech_ccdb(&lying, &mech, &version, &seq, &flags, &out.d), 7);
}

TEST(TypedBuffers, SealRoundTripAndRefusals) {
    Bytes body = {1, 2, 3};
    sec_buffer_desc in = view(body);
    qvtest::SecBuffer sealed;
    ASSERT_EQ(sec__wrap_seal_buff(&in, 0x00010002, 2, &sealed.d), 0);
    EXPECT_EQ(qvtest::to_hex(sealed.bytes()), "860200010002010203");

    qv_uint32_t mech = 0;
    int version = 0;
    qvtest::SecBuffer out;
    ASSERT_EQ(sec__unwrap_seal_buff(&sealed.d, &mech, &version, &out.d), 0);
    EXPECT_EQ(mech, 0x00010002u);
    EXPECT_EQ(version, 2);
    EXPECT_EQ(out.bytes(), body);

    struct Case {
        std::string hex;
        int rc;
        int version;
    } cases[] = {
        {"860900000001", 0, 9},  // any version is taken as it is
        {"8602000000", 7, 0},
        {"820200000001aa", 7, 0},
        {"", 7, 0},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.hex);
        Bytes bytes = qvtest::from_hex(c.hex);
        sec_buffer_desc b = view(bytes);
        qvtest::SecBuffer o;
        version = -1;
        EXPECT_EQ(sec__unwrap_seal_buff(&b, &mech, &version, &o.d), c.rc);
        EXPECT_EQ(o.d.length, 0);
        EXPECT_EQ(o.d.value, nullptr);
        if (c.rc == 0) {
            EXPECT_EQ(version, c.version);
        }
    }
}

// Refused before a byte is copied: the oversized lengths claim far more than
// the 4 bytes behind them, and a header added to them would not fit.
TEST(TypedBuffers, CorruptModuleBufferIsRefused) {
    Bytes four{1, 2, 3, 4};
    struct Case {
        const char *what;
        sec_buffer_desc in;
        int ccdb_version;
        bool seal_too;  // the seal buffer's header is 6 bytes
    } cases[] = {
        {"negative length", {-4, nullptr}, 2, true},
        {"no room for a 6-byte header", {INT32_MAX - 5, four.data()}, 1, true},
        {"no room for an 8-byte header", {INT32_MAX - 7, four.data()}, 2, false},
    };
    for (Case &c : cases) {
        SCOPED_TRACE(c.what);
        qvtest::SecBuffer out;
        EXPECT_EQ(sec__wrap_mech_ccdb(&c.in, 1, c.ccdb_version, 1, 0, &out.d), 7);
        if (c.seal_too) {
            EXPECT_EQ(sec__wrap_seal_buff(&c.in, 1, 2, &out.d), 7);
        }
        EXPECT_EQ(out.d.value, nullptr);
        EXPECT_EQ(out.d.length, 0);
    }
}

}  // namespace
