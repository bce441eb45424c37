#include "test_support.h"

#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <pwd.h>
#include <unistd.h>

namespace qvtest {

namespace {
std::string env_or(const char *name, const char *fallback) {
    const char *v = std::getenv(name);
    return v ? v : fallback;
}

std::string trim(const std::string &s) {
    size_t b = 0, e = s.size();
    while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
    while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
    return s.substr(b, e - b);
}
}  // namespace

std::string source_dir() { return env_or("QV_TEST_SOURCE_DIR", QV_SOURCE_DIR); }
std::string binary_dir() { return env_or("QV_TEST_BINARY_DIR", QV_BINARY_DIR); }

TempDir::TempDir() {
    std::string tmpl = env_or("TMPDIR", "/tmp") + "/qvtest.XXXXXX";
    if (!mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

std::string TempDir::write(const std::string &name, const std::string &contents) const {
    std::string full = path_ + "/" + name;
    std::ofstream out(full, std::ios::binary | std::ios::trunc);
    out << contents;
    return full;
}

std::string this_host() {
    char buf[256] = {};
    gethostname(buf, sizeof buf - 1);
    return buf;
}

std::string user_name(unsigned uid) {
    const passwd *pw = getpwuid(uid);
    return pw != nullptr ? pw->pw_name : "";
}

std::string user_at_host(unsigned uid) {
    std::string user = user_name(uid);
    return (user.empty() ? "#" + std::to_string(uid) : user) + "@" + this_host();
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::vector<uint8_t> from_hex(const std::string &hex) {
    std::vector<uint8_t> out;
    int hi = -1;
    for (char c : hex) {
        if (std::isspace(static_cast<unsigned char>(c))) continue;
        int v = std::isdigit(static_cast<unsigned char>(c)) ? c - '0'
                                                            : std::tolower(static_cast<unsigned char>(c)) - 'a' + 10;
        if (v < 0 || v > 15) throw std::invalid_argument("bad hex: " + hex);
        if (hi < 0) {
            hi = v;
        } else {
            out.push_back(static_cast<uint8_t>(hi << 4 | v));
            hi = -1;
        }
    }
    if (hi >= 0) throw std::invalid_argument("odd hex length: " + hex);
    return out;
}

std::string to_hex(const uint8_t *data, size_t len) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(2 * len);
    for (size_t i = 0; i < len; ++i) {
        out.push_back(digits[data[i] >> 4]);
        out.push_back(digits[data[i] & 15]);
    }
    return out;
}

std::vector<VectorBlock> read_vectors(const std::string &rel) {
    std::string path = source_dir() + "/tests/vectors/" + rel;
    std::ifstream in(path);
    if (!in) throw std::runtime_error("cannot open vector file " + path);
    std::vector<VectorBlock> blocks;
    VectorBlock cur;
    std::string line;
    while (std::getline(in, line)) {
        std::string t = trim(line);
        if (t.empty()) {
            if (!cur.empty()) blocks.push_back(std::move(cur));
            cur.clear();
            continue;
        }
        if (t[0] == '#') continue;
        auto eq = t.find('=');
        if (eq == std::string::npos) throw std::runtime_error("bad vector line: " + t);
        cur[trim(t.substr(0, eq))] = trim(t.substr(eq + 1));
    }
    if (!cur.empty()) blocks.push_back(std::move(cur));
    return blocks;
}

std::string trace_file_of_process(const std::string &name) {
    static std::string path;  // read by the exit handler
    path = "/tmp/qvtest-" + name + "-" + std::to_string(getpid());
    unlink(path.c_str());
    setenv("QV_TRACE_FILE", path.c_str(), 1);
    atexit([] { unlink(path.c_str()); });
    return path;
}

bool wait_until(const std::function<bool()> &pred, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace qvtest
