// The argument and token contract of every exported routine in one table:
// null arguments, wrong magic, a service token not started, a context not
// complete, an identity context, an unauthenticated context, a context
// without a module. Each row gives the return code and message number, and
// for the argument messages the routine (and position) they name. Every row
// must also leave the status record cleared, hand out nothing, change no
// token it was given and call no module routine; the fixture then checks
// that the test modules got back every handle and buffer.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "context_test_harness.h"
#include "current_error.h"

namespace {

using namespace ctxtest;

char kSvc[] = "svc";
char kHost[] = "host";
char kEmpty[] = "";
char kAb[] = "ab";
sec_buffer_desc g_empty{0, kSvc};  // bytes, but none counted
sec_buffer_desc g_no_bytes{3, nullptr};

// The tokens and buffers a row can hand to a routine, made afresh for each row.
struct Env {
    sec_token_t svc = nullptr, server_svc = nullptr;  // started service tokens
    sec_svc_token_desc unstarted{};     // the magic without the started bit
    qv_uint32_t junk[16] = {0x12345678, 2, 3};
    sec_token_t pending = nullptr;      // a client context waiting for the server
    sec_token_t client_done = nullptr;  // a complete client context
    sec_token_t server_done = nullptr;  // a complete, authenticated server context
    sec_token_t unauth_client = nullptr, unauth_server = nullptr;
    sec_token_t identity = nullptr;     // an identity context without the mapping step
    sec_token_t mapped = nullptr;       // an identity context with it
    sec_token_t unauth_id = nullptr;    // an identity context of an unauthenticated client
    sec_ctx_token_desc nomod{}, nomod_id{};  // copies of client_done and identity without their module
    sec_token_t made = nullptr;         // where a routine would put a new context
    sec_status_desc st{};
    bool status_given = false;
    Out out;
    View list{mech_list({kCodeA})};
    View ccdb_in{ccdb(kCodeA, 1, 1, text("c"))};
    View user_id{Bytes{SEC_BUF_TYPED_ID, 2} + be32(kCodeB) + text("alice")};
    View data{text("data")};
    View nothing{Bytes{}};
    View seal_b{Bytes{SEC_BUF_SEAL, 2} + be32(kCodeB) + text("QVTP")};
    View five{Bytes{SEC_BUF_SEAL, 2, 0, 1, 0}};
    View sig{Bytes{SEC_BUF_SEAL, 2} + be32(kCodeA) + text("signatur")};
    View not_seal{Bytes{SEC_BUF_CCDB, 2} + be32(kCodeA) + text("QVTP")};
    sec_buffer_desc unsealable{INT32_MAX - 5, nullptr};  // claims far more than it holds
    char *name = nullptr, *mname = nullptr;
    sec_buffer_desc id{0, nullptr};
    qv_uint32_t u32 = 0;
    qv_int32_t i32 = 0, count = 64, negative = -1;
    sec_buffer_t groups = nullptr;
    sec_buffer_desc group_buf[4]{};
    char *gbuf = reinterpret_cast<char *>(group_buf);
    struct iovec iov[3] = {{kSvc, 3}, {nullptr, 4}, {kAb, 2}};  // the second has a length and no base
    int sock = socket(AF_UNIX, SOCK_STREAM, 0);
    // ACLs and their entries.
    sec_acle_t plain = nullptr, named = nullptr, acle = nullptr;
    sec_acl_buffer_desc acl{0, nullptr}, acl_out{0, nullptr}, tiny{3, kAb};
    unsigned char zeros[24] = {};
    sec_acl_buffer_desc corrupt{24, zeros};
    sec_boolean_t r = 7, m = 7;
    sec_acl_types_desc types = SEC_ACL_TYPES_DEFAULT, shared = {3, -1, 4, 1, 1}, no_id = {3, -1, 5, 1, 2};
    sec_acl_client_desc nameless{5, nullptr, nullptr, 0, nullptr}, anon{0, nullptr, nullptr, 0, nullptr};

    sec_status_t status() {
        status_given = true;
        return &st;
    }
};

struct Row {
    const char *routine;
    const char *situation;
    std::function<int(Env &)> call;
    int rc;
    int msg;
    std::string args;  // what the argument messages name: routine[,position[,value]]
};

// One row: the routine, the situation, the return code and message number,
// then the call's arguments (e is the row's Env).
#define ROW(routine, situation, rc, msg, ...) \
    Row { #routine, situation, []([[maybe_unused]] Env &e) { return routine(__VA_ARGS__); }, rc, msg, #routine }

// The position (and value) the message names beside the routine.
Row at(Row r, const char *position) {
    r.args += std::string(",") + position;
    return r;
}
// The routine the message names, when not this one.
Row named(Row r, const char *args) {
    r.args = args;
    return r;
}

// What a call with one argument NULL must give: return code, message, and
// what the message names after the routine; rc 0 where NULL is allowed.
struct Want {
    int rc = 0, msg = 0;
    const char *pos = nullptr;
};

std::vector<Want> W(Want a = {}, Want b = {}, Want c = {}, Want d = {}, Want e = {}, Want f = {}, Want g = {},
                    Want h = {}) {
    return {a, b, c, d, e, f, g, h};
}

const char *const kNullArgument[] = {"argument 1 NULL", "argument 2 NULL", "argument 3 NULL", "argument 4 NULL",
                                     "argument 5 NULL", "argument 6 NULL", "argument 7 NULL", "argument 8 NULL"};

// A row for each pointer argument of make(e)'s call that wants names.
template <typename F, typename Make>
void add_nulls(std::vector<Row> &rows, const char *routine, F fn, Make make, const std::vector<Want> &wants) {
    using Args = decltype(make(std::declval<Env &>()));
    auto one = [&]<size_t I>(std::integral_constant<size_t, I>) {
        if constexpr (std::is_pointer_v<std::tuple_element_t<I, Args>>) {
            if (wants[I].rc == 0) return;
            std::string args = std::string(routine) + (wants[I].pos ? std::string(",") + wants[I].pos : "");
            auto call = [fn, make](Env &e) {
                Args a = make(e);
                if (static_cast<const void *>(std::get<I>(a)) == &e.st) e.status_given = false;
                std::get<I>(a) = nullptr;
                return static_cast<int>(std::apply(fn, a));
            };
            rows.push_back(Row{routine, kNullArgument[I], call, wants[I].rc, wants[I].msg, args});
        }
    };
    [&]<size_t... I>(std::index_sequence<I...>) {
        (one(std::integral_constant<size_t, I>{}), ...);
    }(std::make_index_sequence<std::tuple_size_v<Args>>{});
}

#define NULLS(routine, wants, ...) \
    add_nulls(rows, #routine, routine, []([[maybe_unused]] Env &e) { return std::tuple{__VA_ARGS__}; }, wants)

constexpr qv_uint32_t kM1 = SEC_F_PROTECT_MODE1, kM2 = SEC_F_PROTECT_MODE2, kSecCtx = SEC_F_IDCTX_SECCTX;
constexpr qv_uint32_t kLocal = SEC_F_LOCAL_SOCKET;

std::vector<Row> rows() {
    static std::string too_long(69, 'p');
    std::vector<Row> rows = {
        ROW(sec_end, "not a service token", 5, MSG_2650_003, e.status(), 0, e.junk),
        ROW(sec_setup_socket, "negative descriptor", 10, MSG_2650_008, e.svc, -1, kLocal, kSvc, &e.made),
        ROW(sec_setup_socket, "both kinds", 4, MSG_2650_002, e.svc, e.sock, kLocal | SEC_F_NETWORK_SOCKET, kSvc,
            &e.made),
        ROW(sec_setup_socket, "neither kind", 4, MSG_2650_002, e.svc, e.sock, 0, kSvc, &e.made),
        ROW(sec_setup_socket, "empty prefix", 4, MSG_2650_002, e.svc, e.sock, kLocal, kEmpty, &e.made),
        ROW(sec_setup_socket, "69-character prefix", 4, MSG_2650_002, e.svc, e.sock, kLocal, too_long.data(),
            &e.made),
        ROW(sec_setup_socket, "not a service token", 5, MSG_2650_003, e.junk, e.sock, kLocal, kSvc, &e.made),
        ROW(sec_start_sec_context, "not a service token", 5, MSG_2650_003,
            e.status(), e.junk, e.list.get(), kSvc, kHost, 0, &e.made, e.out.get()),
        ROW(sec_complete_sec_context, "empty answer", 4, MSG_2650_002, e.status(), &g_empty, &e.pending, e.out.get()),
        ROW(sec_complete_sec_context, "answer without bytes", 4, MSG_2650_002,
            e.status(), &g_no_bytes, &e.pending, e.out.get()),
        ROW(sec_complete_sec_context, "no token", 4, MSG_2650_002, e.status(), e.ccdb_in.get(), &e.made, e.out.get()),
        ROW(sec_complete_sec_context, "already complete", 5, MSG_2650_003,
            e.status(), e.ccdb_in.get(), &e.client_done, e.out.get()),
        ROW(sec_complete_sec_context, "a server context", 5, MSG_2650_003,
            e.status(), e.ccdb_in.get(), &e.server_done, e.out.get()),
        ROW(sec_receive_sec_context, "service not started", 5, MSG_2650_003,
            e.status(), &e.unstarted, e.ccdb_in.get(), &e.made, e.out.get()),
        ROW(sec_get_ctx_attribute, "attribute 0", 4, MSG_2650_002, e.status(), e.client_done, 0, &e.u32),
        ROW(sec_get_ctx_attribute, "attribute 5", 4, MSG_2650_002, e.status(), e.client_done, 5, &e.u32),
        ROW(sec_get_ctx_attribute, "not complete", 5, MSG_2650_003, e.status(), e.pending, SEC_C_CTX_FLAGS, &e.u32),
        ROW(sec_get_ctx_lifetime, "not complete", 5, MSG_2650_003, e.status(), e.pending, &e.i32),
        ROW(sec_prepare_data, "not complete", 5, MSG_2650_061, e.status(), e.pending, kM1, e.data.get(), e.out.get()),
        ROW(sec_prepare_data, "identity context", 5, MSG_2650_062,
            e.status(), e.identity, kM1, e.data.get(), e.out.get()),
        ROW(sec_prepare_data, "no mode", 4, MSG_2650_002, e.status(), e.client_done, 0, e.data.get(), e.out.get()),
        ROW(sec_prepare_data, "both modes", 4, MSG_2650_002,
            e.status(), e.client_done, kM1 | kM2, e.data.get(), e.out.get()),
        ROW(sec_prepare_data, "empty input", 7, MSG_2650_027, e.status(), e.client_done, kM2, e.nothing.get(),
            e.out.get()),
        ROW(sec_prepare_data, "a seal that cannot fit", 7, MSG_2650_027,
            e.status(), e.client_done, kM2, &e.unsealable, e.out.get()),
        // Reported under its sibling's name.
        named(ROW(sec_process_data, "no status", 4, MSG_2650_002, nullptr, e.client_done, e.data.get(), e.out.get()),
              "sec_prepare_data"),
        ROW(sec_process_data, "identity context", 5, MSG_2650_062, e.status(), e.identity, e.data.get(), e.out.get()),
        ROW(sec_process_data, "empty input", 7, MSG_2650_027, e.status(), e.client_done, e.nothing.get(), e.out.get()),
        ROW(sec_process_data, "five bytes", 7, MSG_2650_005, e.status(), e.client_done, e.five.get(), e.out.get()),
        ROW(sec_process_data, "not a seal buffer", 7, MSG_2650_005,
            e.status(), e.client_done, e.not_seal.get(), e.out.get()),
        ROW(sec_process_data, "sealed by another mechanism", 8, MSG_2650_028,
            e.status(), e.client_done, e.seal_b.get(), e.out.get()),
        ROW(sec_end_context, "not a context token", 5, MSG_2650_003, e.status(), e.junk, e.out.get()),
        at(ROW(sec_sign_data_v, "negative count", 4, MSG_2650_060, e.status(), e.client_done, -3, e.iov, e.out.get()),
           "3,4294967293"),
        ROW(sec_sign_data_v, "an element with a length and no base", 7, MSG_2650_081,
            e.status(), e.client_done, 3, e.iov, e.out.get()),
        ROW(sec_sign_data_v, "not complete", 5, MSG_2650_003, e.status(), e.pending, 1, e.iov, e.out.get()),
        ROW(sec_sign_data_v, "identity context", 5, MSG_2650_003, e.status(), e.identity, 1, e.iov, e.out.get()),
        ROW(sec_sign_data_v, "unauthenticated", 12, MSG_2650_022,
            e.status(), e.unauth_client, 1, e.iov, e.out.get()),
        ROW(sec_sign_data_v, "no module", 23, MSG_2650_023, e.status(), &e.nomod, 1, e.iov, e.out.get()),
        at(ROW(sec_verify_data_v, "negative count", 4, MSG_2650_060, e.status(), e.server_done, e.sig.get(), -1,
               e.iov), "4,4294967295"),
        ROW(sec_verify_data_v, "an element with a length and no base", 7, MSG_2650_081,
            e.status(), e.server_done, e.sig.get(), 3, e.iov),
        ROW(sec_verify_data_v, "empty signature", 7, MSG_2650_083, e.status(), e.server_done, &g_empty, 1, e.iov),
        ROW(sec_verify_data_v, "not complete", 5, MSG_2650_061, e.status(), e.pending, e.sig.get(), 1, e.iov),
        ROW(sec_verify_data_v, "identity context", 5, MSG_2650_062, e.status(), e.identity, e.sig.get(), 1, e.iov),
        ROW(sec_verify_data_v, "unauthenticated", 12, MSG_2650_022,
            e.status(), e.unauth_server, e.sig.get(), 1, e.iov),
        ROW(sec_verify_data_v, "no module", 23, MSG_2650_023, e.status(), &e.nomod, e.sig.get(), 1, e.iov),
        ROW(sec_get_client_identity, "not complete", 5, MSG_2650_003, e.status(), e.pending, &e.name, &e.mname, &e.id),
        ROW(sec_get_client_identity, "unauthenticated", 12, MSG_2650_010,
            e.status(), e.unauth_server, &e.name, &e.mname, &e.id),
        ROW(sec_get_client_identity, "a typed id of an identity context", 5, MSG_2650_082,
            e.status(), e.mapped, &e.name, &e.mname, &e.id),
        at(ROW(sec_get_client_groups, "negative count", 4, MSG_2650_060, e.mapped, e.gbuf, &e.negative, &e.groups),
           "3"),
        ROW(sec_get_client_groups, "not a context token", 5, MSG_2650_061,
            e.junk, e.gbuf, &e.count, &e.groups),
        ROW(sec_get_client_groups, "a security context", 5, MSG_2650_063,
            e.server_done, e.gbuf, &e.count, &e.groups),
        ROW(sec_get_client_groups, "no privilege set", 40, MSG_2650_065,
            e.identity, e.gbuf, &e.count, &e.groups),
        at(ROW(sec_user_valid, "empty user", 4, MSG_2650_060, e.status(), e.mapped, kEmpty), "3"),
        ROW(sec_user_valid, "not a context token", 5, MSG_2650_061, e.status(), e.junk, kSvc),
        ROW(sec_user_valid, "a security context", 5, MSG_2650_063, e.status(), e.server_done, kSvc),
        ROW(sec_user_valid, "unauthenticated", 12, MSG_2650_022, e.status(), e.unauth_id, kSvc),
        ROW(sec_user_valid, "no module", 23, MSG_2650_023, e.status(), &e.nomod_id, kSvc),
        ROW(sec_login_as_service, "empty name", 4, MSG_2650_002, e.status(), kEmpty, e.svc),
        ROW(sec_login_as_service, "not a service token", 5, MSG_2650_003, e.status(), kSvc, e.junk),
        ROW(sec_login_as_service, "service not started", 5, MSG_2650_003, e.status(), kSvc, &e.unstarted),
        ROW(sec_renew_identity, "not a service token", 5, MSG_2650_003, e.status(), 3600, e.junk),
        ROW(sec_login_as_user, "not a service token", 5, MSG_2650_003, e.status(), e.junk, e.user_id.get(), nullptr, 0),
        ROW(sec_create_cidb, "not complete", 5, MSG_2650_061, e.status(), 1, e.pending, e.out.get()),
        ROW(sec_create_id_context, "not a service token", 5, MSG_2650_003, e.status(), e.junk, kSecCtx,
            e.server_done, &e.made),
        ROW(sec_create_id_context, "neither source", 4, MSG_2650_066, e.status(), e.svc, 0, e.server_done, &e.made),
        ROW(sec_create_id_context, "both sources", 4, MSG_2650_066, e.status(), e.svc, 0x3, e.server_done, &e.made),
        ROW(sec_create_id_context, "forced and no mapping", 4, MSG_2650_069, e.status(), e.svc, 0x31, e.server_done,
            &e.made),
        ROW(sec_create_id_context, "context not complete", 5, MSG_2650_061, e.status(), e.svc, kSecCtx, e.pending,
            &e.made),
        ROW(sec_create_id_context, "an identity context", 5, MSG_2650_062, e.status(), e.svc, kSecCtx, e.identity,
            &e.made),
        ROW(sec_create_id_context, "empty CIDB", 7, MSG_2650_005, e.status(), e.svc, SEC_F_IDCTX_CIDB, &g_empty,
            &e.made),
        at(ROW(sec_create_mech_buffer, "empty string", 4, MSG_2650_060, kEmpty, &e.i32, e.out.get()), "1"),
        // The third parameter is checked before the second.
        at(ROW(sec_create_acle, "type above 16 bits", 4, MSG_2650_031, 1, 1, 0x10000, kAb, &e.acle), "3,65536"),
        at(ROW(sec_create_acle, "empty id", 4, MSG_2650_031, 1, 1, 3, kEmpty, &e.acle), "4"),
        at(ROW(sec_display_acle_id, "no identifier", 4, MSG_2650_031, e.plain, &e.id), "1"),
        named(ROW(sec_release_acle, "NULL", 4, MSG_2650_031, &e.acle), "sec_del_acle_from_acl,1,0"),
        at(ROW(sec_create_acl_from_data, "negative length", 4, MSG_2650_031, -1, kAb, &e.acl_out), "1"),
        ROW(sec_release_acl, "bad magic", 6, MSG_2650_038, &e.corrupt),
        ROW(sec_release_acl, "shorter than the magic", 6, MSG_2650_038, &e.tiny),
        ROW(sec_sec_verify_perm_from_ctx, "a complete context", 4, MSG_2650_003,
            e.status(), e.client_done, 1, &e.acl, &e.r, &e.m),
        ROW(sec_sec_verify_perm_from_ctx, "a damaged ACL", 23, MSG_2650_038,
            e.status(), e.pending, 1, &e.corrupt, &e.r, &e.m),
        ROW(sec_sec_verify_perm_from_cab, "a complete context", 4, MSG_2650_003,
            e.status(), e.client_done, &e.id, 1, &e.acl, &e.r, &e.m),
        // The ACL is read from the declared fifth argument.
        ROW(sec_sec_verify_perm_from_cab, "a damaged ACL", 23, MSG_2650_038,
            e.status(), e.pending, &e.id, 1, &e.corrupt, &e.r, &e.m),
        at(ROW(sec_check_acl_client, "types shared", 4, MSG_2650_031, &e.acl, &e.shared, &e.anon, 1, &e.u32), "2"),
        at(ROW(sec_check_acl_client, "a name type without its identifier", 4, MSG_2650_031,
               &e.acl, &e.no_id, &e.anon, 1, &e.u32), "2"),
        at(ROW(sec_check_acl_client, "a client without its name", 4, MSG_2650_031,
               &e.acl, nullptr, &e.nameless, 1, &e.u32), "3"),
        ROW(sec_check_acl_client, "a damaged ACL", 7, MSG_2650_038, &e.corrupt, nullptr, &e.anon, 1, &e.u32),
        at(ROW(sec_check_acl_access, "bad types", 4, MSG_2650_031, e.status(), e.mapped, &e.acl, &e.shared, 1,
               &e.u32), "4"),
        ROW(sec_check_acl_access, "not complete", 5, MSG_2650_003, e.status(), e.pending, &e.acl, nullptr, 1, &e.u32),

    };
    // Each pointer argument NULL in turn: {return code, message, what the
    // message names after the routine}; {} where NULL is allowed or the
    // argument is no pointer.
    constexpr int k2 = MSG_2650_002, k60 = MSG_2650_060, k31 = MSG_2650_031;
    NULLS(sec_start, W({4, k60}, {}, {4, k2}), e.status(), 0, &e.made);
    NULLS(sec_end, W({4, k60}), e.status(), 0, e.svc);
    NULLS(sec_setup_socket, W({4, k2}, {}, {}, {4, k2}, {4, k2}), e.svc, e.sock, kLocal, kSvc, &e.made);
    NULLS(sec_start_sec_context, W({4, k60}, {4, k2}, {4, k2}, {4, k2}, {4, k2}, {}, {4, k2}, {4, k2}),
          e.status(), e.svc, e.list.get(), kSvc, kHost, 0, &e.made, e.out.get());
    NULLS(sec_complete_sec_context, W({4, k60}, {4, k2}, {4, k2}, {4, k2}),
          e.status(), e.ccdb_in.get(), &e.pending, e.out.get());
    NULLS(sec_receive_sec_context, W({4, k2}, {4, k2}, {4, k2}, {4, k2}, {4, k2}),
          e.status(), e.server_svc, e.ccdb_in.get(), &e.made, e.out.get());
    NULLS(sec_get_ctx_attribute, W({4, k60}, {4, k2}, {}, {4, k2}), e.status(), e.client_done, SEC_C_CTX_FLAGS,
          &e.u32);
    NULLS(sec_get_ctx_lifetime, W({4, k2}, {4, k2}), e.status(), e.client_done, &e.i32);
    NULLS(sec_prepare_data, W({4, k2}, {4, k2}, {}, {4, k2}, {4, k2}),
          e.status(), e.client_done, kM1, e.data.get(), e.out.get());
    NULLS(sec_process_data, W({}, {4, k2}, {4, k2}, {4, k2}), e.status(), e.client_done, e.data.get(), e.out.get());
    NULLS(sec_end_context, W({4, k60}), e.status(), e.client_done, e.out.get());
    NULLS(sec_sign_data_v, W({4, k60, "1,0"}, {4, k60, "2,0"}, {}, {4, k60, "4,0"}, {4, k60, "5,0"}),
          e.status(), e.client_done, 1, e.iov, e.out.get());
    NULLS(sec_verify_data_v, W({4, k60, "1,0"}, {4, k60, "2,0"}, {4, k60, "3,0"}, {}, {4, k60, "5,0"}),
          e.status(), e.server_done, e.sig.get(), 1, e.iov);
    NULLS(sec_get_client_identity, W({4, k60}, {4, k2}), e.status(), e.server_done, &e.name, &e.mname, &e.id);
    NULLS(sec_get_client_groups, W({4, k60, "1"}, {4, k60, "2"}, {4, k60, "3"}, {4, k60, "4"}),
          e.mapped, e.gbuf, &e.count, &e.groups);
    NULLS(sec_user_valid, W({4, k60, "1"}, {4, k60, "2"}, {4, k60, "3"}), e.status(), e.mapped, kSvc);
    NULLS(sec_login_as_service, W({4, k2}, {4, k2}, {4, k2}), e.status(), kSvc, e.svc);
    NULLS(sec_renew_identity, W({4, k2}, {}, {4, k2}), e.status(), 3600, e.svc);
    NULLS(sec_login_as_user, W({4, k2}, {4, k2}, {4, k2}), e.status(), e.svc, e.user_id.get(), &e.i32, 0);
    NULLS(sec_create_cidb, W({4, k60, "1"}, {}, {4, k60, "3"}, {4, k60, "4"}), e.status(), 1, e.server_done,
          e.out.get());
    NULLS(sec_create_id_context, W({4, k60, "1"}, {4, k60, "2"}, {}, {4, k60, "4"}, {4, k60, "5"}),
          e.status(), e.svc, kSecCtx, e.server_done, &e.made);
    NULLS(sec_generate_key, W({4, k2}), e.out.get());
    NULLS(sec_get_auth_methods, W({4, k60, "1,0"}, {4, k2}), e.out.get(), &e.i32);
    NULLS(sec_create_mech_buffer, W({}, {4, k60, "2,0"}, {4, k60, "3,0"}), kAb, &e.i32, e.out.get());
    NULLS(sec_reconcile_auth_methods, W({4, k2}), e.list.get(), e.out.get());
    NULLS(sec_set_imposed_mechs, W({4, k60, "1,0"}), e.list.get());
    NULLS(sec_add_imposed_mechs, W({4, k60, "1,0"}), e.list.get());
    NULLS(sec_create_acle, W({}, {}, {}, {4, k31, "4,0"}, {4, k31, "5,0"}), 1, 1, 3, kAb, &e.acle);
    NULLS(sec_display_acle_id, W({4, k31, "1,0"}, {4, k31, "2,0"}), e.named, &e.id);
    NULLS(sec_create_acl_from_data, W({}, {4, k31, "2,0"}, {4, k31, "3,0"}), 3, kAb, &e.acl_out);
    NULLS(sec_release_acl, W({4, k31, "1"}), &e.acl);
    NULLS(sec_add_acle_to_acl, W({4, k31, "1,0"}, {}, {4, k31, "3,0"}), e.named, 0, &e.acl);
    NULLS(sec_del_acle_from_acl, W({4, k31, "1,0"}, {}, {4, k31, "3,0"}), e.named, 0, &e.acl);
    NULLS(sec_sec_verify_perm_from_ctx, W({4, k31, "1,0"}, {4, k31, "2,0"}, {}, {4, k31, "4"}, {4, k31, "5"},
                                          {4, k31, "6"}),
          e.status(), e.pending, 1, &e.acl, &e.r, &e.m);
    NULLS(sec_sec_verify_perm_from_cab, W({4, k31, "1"}, {4, k31, "2"}, {4, k31, "4"}, {}, {4, k31, "5"},
                                          {4, k31, "6"}, {4, k31, "7"}),
          e.status(), e.pending, &e.id, 1, &e.acl, &e.r, &e.m);
    NULLS(sec_check_acl_client, W({4, k31, "1"}, {}, {4, k31, "3"}, {}, {4, k31, "5"}), &e.acl, &e.types, &e.anon,
          1, &e.u32);
    NULLS(sec_check_acl_access, W({4, k31, "1"}, {4, k31, "2"}, {4, k31, "3"}, {}, {}, {4, k31, "6"}),
          e.status(), e.mapped, &e.acl, &e.types, 1, &e.u32);
    return rows;
}

// sec_idm_get_groups names the position of the argument it refuses.
std::vector<Row> group_rows() {
    static char user[] = "root";
    static char blank[] = "\0x";
    static sec_buffer_desc good{5, user}, no_value{5, nullptr}, negative{-1, user}, empty{2, blank};
    static int count;
    static sec_buffer_t groups;
    auto row = [](const char *what, sec_buffer_t name, int *c, sec_buffer_t *g, const char *pos) {
        return at(Row{"sec_idm_get_groups", what, [=](Env &) { return sec_idm_get_groups(name, c, g); }, 4,
                      MSG_2650_060, "sec_idm_get_groups"}, pos);
    };
    return {
        row("no name", nullptr, &count, &groups, "1"),
        row("name without bytes", &no_value, &count, &groups, "1"),
        row("negative length", &negative, &count, &groups, "1"),
        row("empty name", &empty, &count, &groups, "1"),
        row("no count", &good, nullptr, &groups, "2"),
        row("no groups", &good, &count, nullptr, "3"),
    };
}

class Contract : public ContextFixture {
protected:
    // Every module call but the ending of a context the failure destroyed.
    unsigned long module_calls() const {
        unsigned long n = 0;
        for (int r = 0; r < QVTEST_MPM_ROUTINES; ++r)
            if (r != QVTEST_MPM_END_CONTEXT) n += m_.calls(r) + m2_.calls(r);
        return n;
    }

    void prepare(Env &e) {
        e.svc = client_svc_;
        e.server_svc = server_svc_;
        e.unstarted.magic = SEC_SVC_TOKEN_MAGIC;
        pthread_mutex_init(&e.unstarted.lock, nullptr);
        e.unsealable.value = e.data.d.value;
        Exchange &done = establish(mech_list({kCodeA}));
        ASSERT_EQ(done.client_rc, 0);
        e.client_done = done.client_ctx;
        e.server_done = done.server_ctx;
        ex_ = Exchange{};
        Exchange &unauth = establish(mech_list({}));
        ASSERT_EQ(unauth.server_rc, 0);
        e.unauth_client = unauth.client_ctx;
        e.unauth_server = unauth.server_ctx;
        ex_ = Exchange{};
        constexpr qv_uint32_t kSecCtx = SEC_F_IDCTX_SECCTX;
        ASSERT_EQ(sec_create_id_context(&e.st, server_svc_, kSecCtx | SEC_F_IDCTX_NO_MAP, e.server_done, &e.identity),
                  0);
        ASSERT_EQ(sec_create_id_context(&e.st, server_svc_, kSecCtx, e.server_done, &e.mapped), 0);
        ASSERT_EQ(sec_create_id_context(&e.st, server_svc_, kSecCtx, e.unauth_server, &e.unauth_id), 0);
        e.nomod = *static_cast<sec_ctx_token_t>(e.client_done);
        e.nomod_id = *static_cast<sec_ctx_token_t>(e.mapped);
        e.nomod.mdata.mpm = e.nomod_id.mdata.mpm = nullptr;
        m_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).continue_rounds = 1;
        Out out;
        ASSERT_EQ(sec_start_sec_context(&e.st, client_svc_, e.list.get(), kSvc, kHost, 0, &e.pending, out.get()), 1);
        ASSERT_EQ(sec_create_acle(1, 1, 2, nullptr, &e.plain), 0);
        ASSERT_EQ(sec_create_acle(1, 1, 3, kAb, &e.named), 0);
        ASSERT_EQ(sec_add_acle_to_acl(e.named, 0, &e.acl), 0);
        std::memset(&e.st, 0x5a, sizeof e.st);
    }

    static void finish(Env &e) {
        sec_status_desc st{};
        for (sec_token_t t : {e.pending, e.client_done, e.server_done, e.unauth_client, e.unauth_server, e.identity,
                              e.mapped, e.unauth_id, e.made})
            EXPECT_EQ(sec_end_context(&st, t, nullptr), 0);
        pthread_mutex_destroy(&e.unstarted.lock);
        close(e.sock);
        free(e.plain);
        free(e.named);
        free(e.acl.value);
    }

    void check(const Row &r) {
        SCOPED_TRACE(std::string(r.routine) + ": " + r.situation);
        Env e;
        prepare(e);
        unsigned long calls = module_calls();
        cu_set_no_error_1();
        EXPECT_EQ(r.call(e), r.rc);
        qvtest::CurrentError err = qvtest::current_error();
        EXPECT_NE(err.id, 0);
        EXPECT_EQ(err.msg_num, r.msg);
        if (r.msg == MSG_2650_002 || r.msg == MSG_2650_060 || r.msg == MSG_2650_031) {
            std::string args = qvtest::current_error_args();
            EXPECT_EQ(args.substr(0, r.args.size()), r.args) << args;
        }
        if (e.status_given) {
            EXPECT_EQ(e.st.maj_stat, 0u);
        }
        EXPECT_EQ(module_calls(), calls);
        EXPECT_EQ(e.made, nullptr);
        EXPECT_TRUE(e.out.empty());
        EXPECT_TRUE(e.name == nullptr && e.mname == nullptr && e.id.value == nullptr);
        EXPECT_TRUE(e.acle == nullptr && e.acl_out.value == nullptr && e.groups == nullptr);
        EXPECT_EQ(e.u32, 0u);
        EXPECT_EQ(e.r + e.m, 14);  // the results are left alone
        EXPECT_EQ(e.junk[1], 2u);
        finish(e);
    }
};

TEST_F(Contract, EveryRoutineRefusesWhatItCannotUse) {
    for (const Row &r : rows()) check(r);
    for (const Row &r : group_rows()) check(r);
}

}  // namespace
