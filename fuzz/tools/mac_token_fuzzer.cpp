// Token files of `qvsec mac verify`: arbitrary bytes through the tool's own
// reader (token_from_file, compiled in with the subcommand's source) and then
// sec_process_message, under a fixed key and message. The first input byte
// scripts the file: bit 0 write the real token as hex, in upper case when
// bit 1 is set, with the rest of the input turned into white space before
// and after it; otherwise the rest of the input is the file.
//
// Checks: a file of 24 bytes is the token as it is; a file the reader
// changes held exactly the token's 48 hex digits and white space; the
// library accepts a token only when it is the real one, and reports any
// other length as a bad token buffer.
#include <cctype>

#include "../../tools/qvsec/mac_command.cpp"
#include "../fuzz_support.h"

// The subcommand's error text comes from main.cpp, which is not built here.
std::string current_error_message() { return {}; }

namespace {

std::vector<uint8_t> real_token(sec_buffer_desc &key, sec_buffer_desc &msg) {
    sec_buffer_desc out{0, nullptr};
    if (sec_prepare_message(&key, SEC_F_MSG_DIGEST, &msg, &out) != 0 || out.length != SEC_MSG_TOKEN_LEN) __builtin_trap();
    std::vector<uint8_t> t(static_cast<uint8_t *>(out.value), static_cast<uint8_t *>(out.value) + out.length);
    std::free(out.value);
    return t;
}

std::string lower(std::string s) {
    for (char &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

}  // namespace

QV_SEC_FUZZ_TARGET(8192) {
    if (size == 0) return;
    static uint8_t key_bytes[8] = {0x13, 0x34, 0x57, 0x79, 0x9b, 0xbc, 0xdf, 0xf1};
    static char text[] = "a message signed with qvsec mac";
    sec_buffer_desc key{8, key_bytes}, msg{static_cast<qv_int32_t>(sizeof text - 1), text};
    static const std::vector<uint8_t> real = real_token(key, msg);

    std::vector<uint8_t> file;
    if (data[0] & 1) {
        static const char blanks[] = " \t\r\n";
        std::string hex = to_hex(real.data(), real.size());
        if (data[0] & 2)
            for (char &c : hex) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        size_t half = (size - 1) / 2;
        for (size_t i = 1; i < size; ++i) {
            if (i == 1 + half) file.insert(file.end(), hex.begin(), hex.end());
            file.push_back(static_cast<uint8_t>(blanks[data[i] % 4]));
        }
        if (half == size - 1) file.insert(file.end(), hex.begin(), hex.end());
    } else {
        file.assign(data + 1, data + size);
    }

    std::vector<uint8_t> token = token_from_file(file);
    if (file.size() == SEC_MSG_TOKEN_LEN && token != file) __builtin_trap();
    if (token != file) {
        std::string t(file.begin(), file.end());
        size_t b = t.find_first_not_of(" \t\r\n"), e = t.find_last_not_of(" \t\r\n");
        if (token.size() != SEC_MSG_TOKEN_LEN || lower(t.substr(b, e - b + 1)) != to_hex(token.data(), token.size()))
            __builtin_trap();
    }
    if ((data[0] & 1) && token != real) __builtin_trap();

    sec_buffer_desc t = view(token);
    qv_int32_t rc = sec_process_message(&key, SEC_F_MSG_DIGEST, &msg, &t);
    int want = token == real ? 0 : token.size() != SEC_MSG_TOKEN_LEN ? SEC_S_BAD_BUFFER : SEC_S_MSG_VERIFY_FAILED;
    if (rc != want) __builtin_trap();
}
