// The library's own sec_idm_get_groups: the groups of a local user from the
// system's user and group databases. A program that maps identities its own
// way defines a function of the same name, which the dynamic linker then
// binds in place of this one; the library calls it only by that name.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <grp.h>
#include <pwd.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "errors.h"

namespace {

constexpr const char *kRoutine = "sec_idm_get_groups";

// Buffer sizes for the reentrant lookups: the system's suggestion, grown on
// ERANGE up to a bound that no sane database entry reaches.
constexpr size_t kLookupBufferLimit = size_t{1} << 20;

size_t initial_buffer(int which) {
    long n = sysconf(which);
    return n > 0 ? static_cast<size_t>(n) : 1024;
}

// The user's entry: 0 found, ENOENT no such user, another errno on failure.
int find_user(const std::string &user, gid_t &gid) {
    std::vector<char> buf(initial_buffer(_SC_GETPW_R_SIZE_MAX));
    for (;;) {
        passwd pw{};
        passwd *found = nullptr;
        int err = getpwnam_r(user.c_str(), &pw, buf.data(), buf.size(), &found);
        if (err == ERANGE && buf.size() < kLookupBufferLimit) {
            buf.resize(buf.size() * 2);
            continue;
        }
        if (err != 0) return err;
        if (found == nullptr) return ENOENT;
        gid = pw.pw_gid;
        return 0;
    }
}

// The group's name: 0 found, ENOENT no entry, another errno on failure.
int group_name(gid_t gid, std::string &name) {
    std::vector<char> buf(initial_buffer(_SC_GETGR_R_SIZE_MAX));
    for (;;) {
        group gr{};
        group *found = nullptr;
        int err = getgrgid_r(gid, &gr, buf.data(), buf.size(), &found);
        if (err == ERANGE && buf.size() < kLookupBufferLimit) {
            buf.resize(buf.size() * 2);
            continue;
        }
        if (err != 0) return err;
        if (found == nullptr || gr.gr_name == nullptr) return ENOENT;
        name = gr.gr_name;
        return 0;
    }
}

// The user's group ids; false when the list cannot be had. getgrouplist
// fails without saying why: when it does not ask for more room than it was
// given, it ran out of memory, and trying again with more would not help.
bool group_ids(const std::string &user, gid_t primary, std::vector<gid_t> &ids) {
    ids.resize(32);
    for (;;) {
        int n = static_cast<int>(ids.size());
        if (getgrouplist(user.c_str(), primary, ids.data(), &n) >= 0) {
            ids.resize(static_cast<size_t>(n));
            return true;
        }
        if (n <= static_cast<int>(ids.size())) return false;
        ids.resize(static_cast<size_t>(n));
    }
}

// A failed lookup: no memory is code 6 like every other allocation failure.
int lookup_failure(const char *what, int err) {
    if (err == ENOMEM) return sec_report(SEC_S_NO_MEMORY, MSG_2650_004);
    return sec_report(SEC_S_INTERNAL, MSG_2650_034, what, err, kRoutine);
}

void free_groups(sec_buffer_t groups, size_t count) {
    for (size_t i = 0; i < count; ++i) std::free(groups[i].value);
    std::free(groups);
}

int get_groups(sec_buffer_t mapped_name, int *gcount, sec_buffer_t *groups) {
    if (mapped_name == nullptr || mapped_name->value == nullptr || mapped_name->length <= 0)
        return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, kRoutine, 1, 0u);
    if (gcount == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, kRoutine, 2, 0u);
    if (groups == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, kRoutine, 3, 0u);
    *gcount = 0;
    *groups = nullptr;
    // The length is the module's byte count, normally with the NUL; the name
    // ends at the first NUL within it.
    const auto *p = static_cast<const char *>(mapped_name->value);
    std::string user(p, strnlen(p, static_cast<size_t>(mapped_name->length)));
    if (user.empty()) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, kRoutine, 1, 0u);

    gid_t primary = 0;
    int err = find_user(user, primary);
    // A mapped name with no local account has no groups: nothing to grant,
    // and not a reason to refuse the client's identity altogether.
    if (err == ENOENT || err == ESRCH || err == EBADF || err == EPERM) return 0;
    if (err != 0) return lookup_failure("getpwnam_r", err);

    std::vector<gid_t> ids;
    if (!group_ids(user, primary, ids)) return lookup_failure("getgrouplist", ENOMEM);
    // Groups without an entry in the group database have no name to match
    // an access control entry with, and are left out. A lookup that failed
    // fails the call: a shorter list would drop the groups an entry denies.
    std::vector<std::string> names;
    for (gid_t gid : ids) {
        std::string name;
        err = group_name(gid, name);
        if (err == ENOENT) continue;
        if (err != 0) return lookup_failure("getgrgid_r", err);
        names.push_back(std::move(name));
    }
    if (names.empty()) return 0;

    auto *array = static_cast<sec_buffer_t>(std::calloc(names.size(), sizeof(sec_buffer_desc)));
    if (array == nullptr)
        return sec_report(SEC_S_NO_MEMORY, MSG_2650_032, kRoutine, static_cast<int>(names.size() * sizeof *array));
    for (size_t i = 0; i < names.size(); ++i) {
        // The length counts the NUL, as the names the modules report do.
        size_t n = names[i].size() + 1;
        void *v = std::malloc(n);
        if (v == nullptr) {
            free_groups(array, i);
            return sec_report(SEC_S_NO_MEMORY, MSG_2650_032, kRoutine, static_cast<int>(n));
        }
        std::memcpy(v, names[i].c_str(), n);
        array[i].value = v;
        array[i].length = static_cast<qv_int32_t>(n);
    }
    *gcount = static_cast<int>(names.size());
    *groups = array;
    return 0;
}

}  // namespace

extern "C" {

int sec_idm_get_groups(sec_buffer_t mapped_name, int *gcount, sec_buffer_t *groups) {
    return sec_guard([&] { return get_groups(mapped_name, gcount, groups); });
}

}  // extern "C"
