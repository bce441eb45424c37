// Conversion of identity strings between the locale's code set and UTF-8,
// the encoding of the names that leave the process in CIDBs.
#include <langinfo.h>

#include <cstdlib>
#include <cstring>

#include "errors.h"

extern "C" {

// One handle per direction, opened once for the process and never closed. A
// handle that could not be opened stays NULL, and every conversion in its
// direction fails from then on.
cu_iconv_t *sec__to_utf8_hdl = nullptr;
cu_iconv_t *sec__from_utf8_hdl = nullptr;
pthread_once_t sec__init_to_utf8_once_block = PTHREAD_ONCE_INIT;
pthread_once_t sec__init_from_utf8_once_block = PTHREAD_ONCE_INIT;

}  // extern "C"

namespace {

void open_handle(int direction, cu_iconv_t **hdl) {
    char codeset[256] = {};
    if (const char *cs = nl_langinfo(CODESET); cs != nullptr) std::strncpy(codeset, cs, sizeof codeset - 1);
    cu_iconv_open_1(codeset, direction, hdl);
}

void init_to_utf8() { open_handle(CU_ICONV_TO_UTF8, &sec__to_utf8_hdl); }
void init_from_utf8() { open_handle(CU_ICONV_FROM_UTF8, &sec__from_utf8_hdl); }

qv_int32_t convert(const char *routine, cu_iconv_t *hdl, char *in, size_t *in_len, char **out, size_t *out_len) {
    *out = nullptr;
    *out_len = 0;
    if (hdl == nullptr) return sec_report(SEC_S_CODESET, MSG_2650_079, routine);
    int rc = cu_iconv_str_1(hdl, 0, in, in_len, out, out_len);
    if (rc == 0) return 0;
    // The utility library leaves no output behind on failure; make sure.
    std::free(*out);
    *out = nullptr;
    *out_len = 0;
    switch (rc) {
    case CU_E_NOMEM:
        return sec_report(SEC_S_NO_MEMORY, MSG_2650_032, "cu_iconv_open", static_cast<int>(*in_len));
    case CU_E_INTERNAL:
    case CU_E_BADARG:
        return sec_report(SEC_S_INTERNAL, MSG_2650_077, "cu_iconv_open", rc, routine);
    default:
        return sec_report(SEC_S_CODESET, MSG_2650_079, routine);
    }
}

}  // namespace

extern "C" {

qv_int32_t sec__convert_to_utf8(char *local_string, size_t *local_length, char **utf8_string, size_t *utf8_length) {
    pthread_once(&sec__init_to_utf8_once_block, init_to_utf8);
    return convert("sec__convert_to_utf8", sec__to_utf8_hdl, local_string, local_length, utf8_string, utf8_length);
}

qv_int32_t sec__convert_from_utf8(char *utf8_string, size_t *utf8_length, char **local_string,
                                  size_t *local_length) {
    pthread_once(&sec__init_from_utf8_once_block, init_from_utf8);
    return convert("sec__convert_from_utf8", sec__from_utf8_hdl, utf8_string, utf8_length, local_string,
                   local_length);
}

}  // extern "C"
