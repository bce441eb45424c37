// Code-set conversion between a named code set and UTF-8 over iconv. One
// handle is shared by every thread of a process, while an iconv descriptor
// keeps conversion state: a mutex serialises its use.
#include <errno.h>
#include <iconv.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <stdexcept>
#include <vector>

#include "cu_internal.h"

struct cu_iconv {
    iconv_t cd;
    std::mutex mutex;
};

namespace {

const iconv_t kNoDescriptor = reinterpret_cast<iconv_t>(-1);

// Converts all of in into out (sized to what was written); 0 or a CU_E_ code.
int convert(iconv_t cd, char *in, size_t in_len, std::vector<char> &out) {
    iconv(cd, nullptr, nullptr, nullptr, nullptr);  // start from the initial state
    out.resize(in_len + in_len / 2 + 16);
    size_t used = 0;
    bool flushing = false;
    for (;;) {
        char *dst = out.data() + used;
        size_t room = out.size() - used;
        size_t rc = flushing ? iconv(cd, nullptr, nullptr, &dst, &room)
                             : iconv(cd, &in, &in_len, &dst, &room);
        int e = errno;
        used = out.size() - room;
        if (rc != size_t(-1)) {
            if (flushing) {
                out.resize(used);
                return 0;
            }
            flushing = true;  // return a stateful encoding to its initial shift state
            continue;
        }
        if (e == EILSEQ || e == EINVAL) return CU_E_CONVERT;
        if (e != E2BIG) return CU_E_INTERNAL;
        if (out.size() > (SIZE_MAX - 64) / 2) return CU_E_NOMEM;
        out.resize(out.size() * 2 + 64);
    }
}

}  // namespace

extern "C" {

int cu_iconv_open_1(const char *codeset, int direction, cu_iconv_t **hdl) {
    if (hdl == nullptr) return CU_E_BADARG;
    *hdl = nullptr;
    if (codeset == nullptr || (direction != CU_ICONV_TO_UTF8 && direction != CU_ICONV_FROM_UTF8))
        return CU_E_BADARG;
    iconv_t cd = direction == CU_ICONV_TO_UTF8 ? iconv_open("UTF-8", codeset)
                                               : iconv_open(codeset, "UTF-8");
    if (cd == kNoDescriptor) return errno == EINVAL ? CU_E_CONVERT : errno == ENOMEM ? CU_E_NOMEM : CU_E_INTERNAL;
    auto *h = new (std::nothrow) cu_iconv;
    if (h == nullptr) {
        iconv_close(cd);
        return CU_E_NOMEM;
    }
    h->cd = cd;
    *hdl = h;
    return 0;
}

int cu_iconv_str_1(cu_iconv_t *hdl, int /*flags: reserved*/, char *in, size_t *in_len, char **out,
                   size_t *out_len) {
    if (out != nullptr) *out = nullptr;
    if (out_len != nullptr) *out_len = 0;
    if (hdl == nullptr || in_len == nullptr || out == nullptr || out_len == nullptr ||
        (in == nullptr && *in_len != 0))
        return CU_E_BADARG;
    try {
        std::vector<char> buf;
        int rc;
        {
            std::lock_guard<std::mutex> lock(hdl->mutex);
            rc = convert(hdl->cd, in, *in_len, buf);
        }
        if (rc != 0) return rc;
        size_t n = buf.size();
        char *copy = static_cast<char *>(malloc(n + 1));
        if (copy == nullptr) return CU_E_NOMEM;
        std::memcpy(copy, buf.data(), n);
        copy[n] = '\0';
        *out = copy;
        *out_len = n;
        return 0;
    } catch (const std::bad_alloc &) {
        return CU_E_NOMEM;
    } catch (const std::length_error &) {
        return CU_E_NOMEM;
    }
}

int cu_iconv_close_1(cu_iconv_t *hdl) {
    if (hdl != nullptr) {
        iconv_close(hdl->cd);
        delete hdl;
    }
    return 0;
}

}  // extern "C"
