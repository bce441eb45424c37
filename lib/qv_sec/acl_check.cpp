// The access check: which requested permission bits an ACL grants a client.
//
// Entries are variable-length, so a sub-ACL cannot be indexed; its sorted
// order is searched by byte offset instead. A probe at an offset moves
// forward to the next entry start, which is recognised by what an entry
// made by sec_create_acle looks like there: the end of the previous entry
// (an identifier byte or the type, then the NUL and two zero bytes) and a
// whole entry of the sub-ACL's type and mechanism (identifier bytes non-zero,
// NUL and padding zero, length matching). Identifiers hold no zero byte, so
// the bytes inside an identifier never pass for an entry, and the fixed
// fields are checked against the sub-ACL. Every entry the search reads is
// checked so; one that fails is damage.
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "acl_arguments.h"
#include "acl_format.h"
#include "context_token.h"
#include "errors.h"
#include "library_init.h"
#include "module_client_name.h"

namespace {

struct SubAclBytes {
    const uint8_t *b;  // the whole buffer
    size_t begin, end;
    uint16_t type;
    uint32_t mech;
};

// An entry as sec_create_acle makes it (of the sub-ACL's type and mechanism)
// starts at h; its length in *len.
bool whole_entry_at(const SubAclBytes &s, size_t h, uint32_t *len) {
    const uint8_t *e = s.b + h;
    if (s.end - h < acl::kEntryHeadLen + 1) return false;
    const uint32_t n = acl::be32(e);
    if (n < acl::kEntryHeadLen + 1 || n > s.end - h) return false;
    if (acl::be32(e + acl::kAcleMech) != s.mech || acl::be16(e + acl::kAcleType) != s.type) return false;
    const size_t id_length = n - acl::kEntryHeadLen - 1;
    if (std::memchr(e + acl::kIdOffset, 0, id_length) != nullptr) return false;
    const uint8_t *tail = e + acl::kIdOffset + id_length;
    if (tail[0] != 0 || tail[1] != 0 || tail[2] != 0) return false;
    *len = n;
    return true;
}

// Whether an entry may start at h > begin: the previous entry ended with a
// non-zero byte (its identifier's last, or its type for an empty one), then
// the NUL and the padding.
bool ends_entry_before(const SubAclBytes &s, size_t h) {
    if (h - s.begin < acl::kEntryHeadLen + 1) return false;
    const uint8_t *p = s.b + h;
    return p[-1] == 0 && p[-2] == 0 && p[-3] == 0 && p[-4] != 0;
}

// The first entry start in [from, limit), or limit.
size_t next_entry(const SubAclBytes &s, size_t from, size_t limit, uint32_t *len) {
    for (size_t h = from; h < limit; ++h) {
        if (h == s.begin ? whole_entry_at(s, h, len) : ends_entry_before(s, h) && whole_entry_at(s, h, len))
            return h;
    }
    return limit;
}

enum class Search { found, absent, damaged };

// Binary search of the sub-ACL for the identifier key. lo is always an entry
// start (or the end) below which every identifier is smaller than key; hi an
// entry start (or the end) from which every identifier is at least key. The
// identifiers met must agree with that order, or the sub-ACL is damaged.
Search find_id(const SubAclBytes &s, const char *key, uint32_t *perm) {
    size_t lo = s.begin, hi = s.end;
    const char *below = nullptr, *above = nullptr;  // the nearest identifiers seen on either side
    while (lo < hi) {
        uint32_t len = 0;
        size_t p = next_entry(s, lo + (hi - lo) / 2, hi, &len);
        if (p == hi) {
            // No entry starts in the upper half: try the one at lo.
            p = lo;
            if (!whole_entry_at(s, p, &len)) return Search::damaged;
        }
        const char *id = acl::entry_id(s.b + p);
        if ((below != nullptr && std::strcmp(below, id) >= 0) || (above != nullptr && std::strcmp(id, above) >= 0))
            return Search::damaged;
        const int c = std::strcmp(id, key);
        if (c == 0) {
            *perm = acl::entry_perm(s.b + p);
            return Search::found;
        }
        if (c < 0) {
            below = id;
            lo = p + len;
        } else {
            above = id;
            hi = p;
        }
    }
    return Search::absent;
}

// The kind of entries a sub-ACL of this type holds for the client.
enum class Kind { none, network_name, mapped_name, group, authenticated, anyone };

Kind kind_of(const sec_acl_types_desc &t, uint16_t type) {
    const qv_int32_t ty = type;
    if (ty == t.network_name) return Kind::network_name;
    if (ty == t.mapped_name) return Kind::mapped_name;
    if (ty == t.group) return Kind::group;
    if (ty == t.authenticated) return Kind::authenticated;
    if (ty == t.anyone) return Kind::anyone;
    return Kind::none;
}

bool types_valid(const sec_acl_types_desc &t) {
    const qv_int32_t named[] = {t.network_name, t.mapped_name, t.group};
    const qv_int32_t other[] = {t.authenticated, t.anyone};
    for (qv_int32_t v : named)
        if (v != -1 && !acl::type_has_id(static_cast<uint32_t>(v))) return false;
    for (qv_int32_t v : other)
        if (v != -1 && (v < 0 || v > 0xffff || acl::type_has_id(static_cast<uint32_t>(v)))) return false;
    const qv_int32_t all[] = {t.network_name, t.mapped_name, t.group, t.authenticated, t.anyone};
    for (int i = 0; i < 5; ++i)
        for (int j = i + 1; j < 5; ++j)
            if (all[i] != -1 && all[i] == all[j]) return false;
    return true;
}

constexpr sec_acl_types_desc kDefaultTypes = SEC_ACL_TYPES_DEFAULT;

// The grant of one sub-ACL, or false when it is damaged.
bool grant_of(const SubAclBytes &s, Kind kind, const sec_acl_client_desc &c, int32_t count, uint32_t *bits) {
    auto search = [&](const char *key) {
        if (key == nullptr) return true;
        uint32_t perm = 0;
        Search r = find_id(s, key, &perm);
        if (r == Search::found) *bits |= perm;
        return r != Search::damaged;
    };
    switch (kind) {
        case Kind::none:
            return true;
        case Kind::network_name:
            return search(c.name);
        case Kind::mapped_name:
            return search(c.mname);
        case Kind::group:
            for (qv_int32_t i = 0; i < c.gcount; ++i)
                if (!search(c.groups[i])) return false;
            return true;
        case Kind::authenticated:
        case Kind::anyone:
            // One 16-byte entry at most: a second would have replaced it.
            if (count == 0) return s.end == s.begin;
            if (count != 1 || s.end - s.begin != acl::kEntryHeadLen || acl::be32(s.b + s.begin) != acl::kEntryHeadLen)
                return false;
            *bits |= acl::entry_perm(s.b + s.begin);
            return true;
    }
    return true;
}

qv_int32_t damaged() { return sec_report(SEC_S_BAD_BUFFER, MSG_2650_038); }

qv_int32_t check(const sec_acl_buffer_desc &acl, const sec_acl_types_desc &types, const sec_acl_client_desc &c,
                 qv_uint32_t requested, qv_uint32_t *granted) {
    *granted = 0;
    if (acl.length == 0 || acl.value == nullptr) return 0;
    if (acl.length < 0) return damaged();
    std::span<const uint8_t> buf(acl::bytes_of(acl.value), static_cast<size_t>(acl.length));
    const bool authenticated = c.mech != 0;
    uint32_t bits = 0;
    bool intact = true;
    // The heads are walked to the end whatever the client, so that damage
    // there is found for every client alike.
    bool heads = acl::walk_subacls(buf, [&](const acl::SubAcl &s) {
        Kind kind = kind_of(types, s.type);
        if (!authenticated || s.mech != c.mech) {
            // Mechanism 0's anyone entry is for every client; nothing else
            // of another mechanism applies.
            if (s.mech != 0 || kind != Kind::anyone) return true;
        }
        SubAclBytes bytes{buf.data(), s.begin, s.end, s.type, s.mech};
        if (!grant_of(bytes, kind, c, s.count, &bits)) intact = false;
        return intact;
    });
    if (!heads || !intact) return damaged();
    *granted = bits & requested;
    return 0;
}

qv_int32_t check_client(sec_acl_buffer_t acl, const sec_acl_types_desc *types, const sec_acl_client_desc *client,
                        qv_uint32_t requested, qv_uint32_t *granted) {
    constexpr const char *kRoutine = "sec_check_acl_client";
    auto bad = [](int position, const void *value) { return sec_acl_bad_argument(kRoutine, position, value); };
    if (granted != nullptr) *granted = 0;
    if (acl == nullptr) return bad(1, acl);
    if (types != nullptr && !types_valid(*types)) return bad(2, types);
    if (client == nullptr || (client->mech == 0) != (client->name == nullptr) || client->gcount < 0 ||
        (client->gcount > 0 && client->groups == nullptr))
        return bad(3, client);
    if (granted == nullptr) return bad(5, granted);
    // Groups and a mapped name come with an authenticated name only.
    sec_acl_client_desc c = *client;
    if (c.mech == 0) c = sec_acl_client_desc{};
    return check(*acl, types != nullptr ? *types : kDefaultTypes, c, requested, granted);
}

// Frees a privilege set's names when the check is done.
struct PrivsetOwner {
    sec_privset_info_desc ps{};
    ~PrivsetOwner() { sec__free_privset_info(&ps); }
};

qv_int32_t check_access(sec_status_t st, sec_token_t ctx, sec_acl_buffer_t acl, const sec_acl_types_desc *types,
                        qv_uint32_t requested, qv_uint32_t *granted) {
    constexpr const char *kRoutine = "sec_check_acl_access";
    auto bad = [](int position, const void *value) { return sec_acl_bad_argument(kRoutine, position, value); };
    if (granted != nullptr) *granted = 0;
    if (st == nullptr) return bad(1, st);
    *st = sec_status_desc{};
    if (ctx == nullptr) return bad(2, ctx);
    if (acl == nullptr) return bad(3, acl);
    if (types != nullptr && !types_valid(*types)) return bad(4, types);
    if (granted == nullptr) return bad(6, granted);
    if (!sec_ctx_usable(ctx)) return sec_report(SEC_S_BAD_TOKEN, MSG_2650_003);
    const auto &t = *static_cast<const sec_ctx_token_desc *>(ctx);
    const sec_acl_types_desc &ty = types != nullptr ? *types : kDefaultTypes;
    sec_acl_client_desc c{};
    if ((t.state & SEC_CTX_S_AUTHENTICATED) == 0) return check(*acl, ty, c, requested, granted);
    if (t.mdata.mpm == nullptr) return sec_report(SEC_S_INTERNAL, MSG_2650_068);
    c.mech = t.mdata.mpm->code;
    PrivsetOwner own;
    const sec_privset_info_desc *ps = &t.privset;
    if ((t.state & SEC_CTX_S_IDENTITY) == 0) {
        // A security context: its mechanism names the client and maps it.
        SecMallocPtr name;
        if (qv_int32_t rc = sec_module_client_name(t.mdata.mpm, t.mdata.mtoken, st, kRoutine, name)) return rc;
        own.ps.name = name.release();
        if (qv_int32_t rc = sec__get_mapped_identity(st, t.mdata.mpm, t.mdata.mtoken, &own.ps)) return rc;
        ps = &own.ps;
    }
    if (ps->name == nullptr) return sec_report(SEC_S_INTERNAL, MSG_2650_072, c.mech);
    c.name = ps->name;
    const bool mapped = (t.state & SEC_CTX_S_IDENTITY) == 0 || (t.state & SEC_CTX_S_MAPPED) != 0;
    std::vector<const char *> groups;
    if (mapped) {
        c.mname = ps->mname;
        for (int i = 0; i < ps->gcount && ps->groups != nullptr; ++i)
            if (ps->groups[i].value != nullptr) groups.push_back(static_cast<const char *>(ps->groups[i].value));
        c.gcount = static_cast<qv_int32_t>(groups.size());
        c.groups = groups.data();
    }
    return check(*acl, ty, c, requested, granted);
}

}  // namespace

extern "C" {

qv_int32_t sec_check_acl_client(sec_acl_buffer_t acl, const sec_acl_types_desc *types,
                                const sec_acl_client_desc *client, qv_uint32_t requested, qv_uint32_t *granted) {
    sec_init_once();
    qv_int32_t rc = sec_guard([&] { return check_client(acl, types, client, requested, granted); });
    sec__trace_routine_end("sec_check_acl_client", rc, nullptr);
    return rc;
}

qv_int32_t sec_check_acl_access(sec_status_t st, sec_token_t ctx, sec_acl_buffer_t acl,
                                const sec_acl_types_desc *types, qv_uint32_t requested, qv_uint32_t *granted) {
    sec_init_once();
    qv_int32_t rc = sec_guard([&] { return check_access(st, ctx, acl, types, requested, granted); });
    if (rc != 0 && granted != nullptr) *granted = 0;
    sec__trace_routine_end("sec_check_acl_access", rc, st);
    return rc;
}

}  // extern "C"
