// Prints what each installed library answers, so that the install test can
// compare: the version the headers name and the one the library reports,
// an MD5 digest (vorpkit), a formatted message (qv_cu), a trace call (qv_tr).
#include <qv_cu.h>
#include <qv_sec.h>
#include <qv_tr.h>
#include <vorpkit.h>

#include <cstdio>

int main() {
    std::printf("header %s library %s\n", QV_SEC_VERSION, sec_version());
    unsigned char digest[VORP_MD5_DIGEST_LEN];
    qv_uint32_t state[VORP_MD5_STATE_WORDS];
    Vorp_md5(Vorp_md5Init(state), "abc", 3, digest);
    std::printf("md5 ");
    for (unsigned char b : digest) std::printf("%02x", b);
    cu_error_t *err = nullptr;
    char *msg = nullptr;
    cu_set_error_1(7, nullptr, "none.cat", 1, 1, "text %1$s", "here");
    if (cu_get_error_1(&err) != 0 || cu_get_errmsg_1(err, &msg) != 0) return 1;
    std::printf("\nmessage %s\n", msg);
    cu_rel_errmsg_1(msg);
    cu_rel_error_1(err);
    // No component is registered: the call only has to link and return.
    (void)tr_record_id_1("NONE", 1);
    return 0;
}
