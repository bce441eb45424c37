// Writes the message catalogue source (gencat format) for the library's
// message table: set 1, one message per table index. Index 0 is never
// issued and gencat numbers messages from 1, so it is left out.
#include <cstdio>

#include "qv_sec.h"

int main() {
    std::printf("$ Messages of libqv_sec, generated from its message table.\n$set 1\n");
    for (int i = 1; i < SEC_MSG_COUNT; ++i) {
        std::printf("%d ", i);
        for (const char *p = cu_mesgtbl_qvsec_msg[i]; *p; ++p) {
            switch (*p) {
            case '\n': std::fputs("\\n", stdout); break;
            case '\t': std::fputs("\\t", stdout); break;
            case '\\': std::fputs("\\\\", stdout); break;
            default: std::putchar(*p);
            }
        }
        std::putchar('\n');
    }
    return 0;
}
