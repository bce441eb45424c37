// The calling thread's error record: set, copied out, reinstated, cleared.
// Each thread's record hangs off a thread key whose destructor frees it when
// the thread exits. When memory runs out the thread keeps a bare record
// (only the error id) in static thread storage, so the id is never lost.
#include <pthread.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "cu_internal.h"

namespace {

pthread_key_t g_key;
bool g_key_ok = false;
pthread_once_t g_key_once = PTHREAD_ONCE_INIT;

// Trivially destructible, so it stays usable while key destructors run.
thread_local cu_error_t t_bare_record{};

void release_thread_record(cu_error_t *rec) {
    if (rec != &t_bare_record) qvcu::free_record(rec);
}

void key_destructor(void *value) { release_thread_record(static_cast<cu_error_t *>(value)); }

void create_key() { g_key_ok = pthread_key_create(&g_key, key_destructor) == 0; }

bool key_ready() {
    pthread_once(&g_key_once, create_key);
    return g_key_ok;
}

const cu_error_t *current_record() {
    return key_ready() ? static_cast<const cu_error_t *>(pthread_getspecific(g_key)) : nullptr;
}

// Makes rec (owned, may be NULL) the thread's record, freeing the old one.
void install_record(cu_error_t *rec) {
    if (!key_ready()) {
        release_thread_record(rec);
        return;
    }
    auto *old = static_cast<cu_error_t *>(pthread_getspecific(g_key));
    if (old == rec) return;
    if (pthread_setspecific(g_key, rec) == 0) {
        release_thread_record(old);
        return;
    }
    // Only when the thread's key storage cannot grow (so no value was ever
    // set): keep the id in static thread storage.
    bool had = rec != nullptr;
    int id = had ? rec->cu_error_id : 0;
    release_thread_record(rec);
    t_bare_record = cu_error_t{};
    t_bare_record.cu_error_id = id;
    if (pthread_setspecific(g_key, had ? &t_bare_record : nullptr) == 0) release_thread_record(old);
}

void install_bare_record(int error_id) {
    install_record(nullptr);
    t_bare_record = cu_error_t{};
    t_bare_record.cu_error_id = error_id;
    install_record(&t_bare_record);
}

// Reads one argument of the given type from ap into *arg; false when a string
// cannot be copied.
bool read_argument(qvcu::VaType type, va_list &ap, cu_arg_t *arg) {
    using qvcu::VaType;
    arg->cu_arg_type = qvcu::record_type(type);
    auto &v = arg->cu_arg_value;
    switch (type) {
    case VaType::Int: v.cu_arg_long = va_arg(ap, int); break;
    case VaType::UInt: v.cu_arg_ulong = va_arg(ap, unsigned int); break;
    case VaType::Long: v.cu_arg_long = va_arg(ap, long); break;
    case VaType::ULong: v.cu_arg_ulong = va_arg(ap, unsigned long); break;
    case VaType::LongLong: v.cu_arg_long = va_arg(ap, long long); break;
    case VaType::ULongLong: v.cu_arg_ulong = va_arg(ap, unsigned long long); break;
    case VaType::IntMax: v.cu_arg_long = va_arg(ap, intmax_t); break;
    case VaType::UIntMax: v.cu_arg_ulong = va_arg(ap, uintmax_t); break;
    case VaType::Size: v.cu_arg_ulong = va_arg(ap, size_t); break;
    case VaType::PtrDiff: v.cu_arg_long = va_arg(ap, ptrdiff_t); break;
    case VaType::Double: v.cu_arg_double = va_arg(ap, double); break;
    case VaType::Pointer: v.cu_arg_pointer = va_arg(ap, void *); break;
    case VaType::String: {
        const char *s = va_arg(ap, const char *);
        v.cu_arg_string = nullptr;
        if (s != nullptr && (v.cu_arg_string = strdup(s)) == nullptr) return false;
        break;
    }
    default: return false;  // argument_types never yields the others
    }
    return true;
}

// Builds the record's fixed part; NULL when memory runs out.
cu_error_t *new_record(int error_id, const char *ffdc_id, const char *msg_cat, int msg_set,
                       int msg_num, const char *msg_default) {
    cu_error_t fields{};
    fields.cu_error_id = error_id;
    fields.cu_ffdc_id = const_cast<char *>(ffdc_id);
    fields.cu_msg_cat = const_cast<char *>(msg_cat);
    fields.cu_msg_set = msg_set;
    fields.cu_msg_num = msg_num;
    fields.cu_msg_default = const_cast<char *>(msg_default);
    return qvcu::copy_record(&fields);
}

}  // namespace

extern "C" {

int cu_set_error_1(int error_id, const char *ffdc_id, const char *msg_cat, int msg_set,
                   int msg_num, const char *msg_default, ...) {
    std::vector<qvcu::VaType> types;
    try {
        if (msg_default != nullptr) types = qvcu::argument_types(msg_default);
    } catch (const std::bad_alloc &) {
        install_bare_record(error_id);
        return error_id;
    }
    cu_error_t *rec = new_record(error_id, ffdc_id, msg_cat, msg_set, msg_num, msg_default);
    if (rec != nullptr && !types.empty()) {
        rec->cu_args = static_cast<cu_arg_t *>(calloc(types.size(), sizeof(cu_arg_t)));
        if (rec->cu_args == nullptr) {
            qvcu::free_record(rec);
            rec = nullptr;
        }
    }
    if (rec == nullptr) {
        install_bare_record(error_id);
        return error_id;
    }
    va_list ap;
    va_start(ap, msg_default);
    bool ok = true;
    for (size_t i = 0; i < types.size() && ok; ++i) {
        ok = read_argument(types[i], ap, &rec->cu_args[i]);
        rec->cu_arg_cnt = qv_uint32_t(i + 1);  // the argument is the record's now
    }
    va_end(ap);
    if (!ok) {
        qvcu::free_record(rec);
        install_bare_record(error_id);
        return error_id;
    }
    install_record(rec);
    return error_id;
}

int cu_get_error_1(cu_error_t **err) {
    if (err == nullptr) return CU_E_BADARG;
    static const cu_error_t kNoError{};
    const cu_error_t *cur = current_record();
    *err = qvcu::copy_record(cur != nullptr ? cur : &kNoError);
    return *err != nullptr ? 0 : CU_E_NOMEM;
}

int cu_pset_error_1(const cu_error_t *err) {
    if (err == nullptr) {
        install_record(nullptr);
        return 0;
    }
    if (err == current_record()) return 0;
    cu_error_t *rec = qvcu::copy_record(err);
    if (rec == nullptr) {
        install_bare_record(err->cu_error_id);
        return CU_E_NOMEM;
    }
    install_record(rec);
    return 0;
}

int cu_set_no_error_1(void) {
    install_record(nullptr);
    return 0;
}

void cu_rel_error_1(cu_error_t *err) { qvcu::free_record(err); }

}  // extern "C"
