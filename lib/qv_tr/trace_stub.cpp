// Placeholder until the real trace library lands: records nothing.
#include "qv_tr.h"

extern "C" {
int tr_register_component_1(const char *, tr_detail_level_t *, const tr_category_description *, int) { return 0; }
int tr_record_id_1(const char *, qv_uint32_t) { return 0; }
int tr_record_data_1(const char *, qv_uint32_t, qv_uint32_t, ...) { return 0; }
int tr_record_strings_1(const char *, qv_uint32_t, qv_uint32_t, ...) { return 0; }
int tr_unregister_component_1(const char *) { return 0; }
}
