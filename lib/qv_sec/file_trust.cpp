// Whether a file may choose what a privileged process does. A configuration
// file names the modules to load, and a module runs as the process: in
// secure-execution mode either one must be out of reach of every user but
// root and the process's own effective user.
#include <sys/auxv.h>

#include "config.h"

extern "C" {

int sec__secure_execution(void) { return getauxval(AT_SECURE) != 0 ? 1 : 0; }

unsigned sec__file_distrust(const struct stat *sb, uid_t euid) {
    unsigned reasons = 0;
    if (sb->st_uid != 0 && sb->st_uid != euid) reasons |= kSecFileForeignOwner;
    // A group-writable file is refused even when the group is root's: the
    // rule a reader can check at a glance is "only the owner writes".
    if (sb->st_mode & (S_IWGRP | S_IWOTH)) reasons |= kSecFileOthersMayWrite;
    if (!S_ISREG(sb->st_mode)) reasons |= kSecFileNotRegular;
    return reasons;
}

}  // extern "C"
