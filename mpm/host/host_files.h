// Reading and writing the files of host trust: the host key and the
// trusted-hosts file. Internal to qv_host_trust and its tools.
#pragma once

#include "owned_fd.h"
#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace qvhost {

// Reads a whole file that must be a regular file (a symlink is not followed),
// owned by root or by the effective user, at most `max_bytes` long, with none
// of the permission bits `forbidden_mode`. `what` names the file in the
// one-line reason. The caller wipes `out` when it holds a secret; on failure
// nothing of the file is left in `out`.
bool read_checked_file(const std::string &path, std::size_t max_bytes, mode_t forbidden_mode,
                       const char *what, std::string &out, std::string &why);

// Replaces `path` with `content` atomically: a temporary file beside it with
// mode `mode`, written, flushed to disk, renamed over the path, and the
// directory flushed. false with a one-line reason on failure (the path is
// then unchanged and the temporary file removed).
bool write_file_atomically(const std::string &path, std::string_view content, mode_t mode,
                           std::string &why);

// Starts libsodium once; false when it cannot start.
bool crypto_ready();

}  // namespace qvhost
