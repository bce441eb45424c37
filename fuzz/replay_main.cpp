// Replays a fuzz target's seed corpus without libFuzzer: every file of every
// directory given (or every file given) goes once through
// LLVMFuzzerTestOneInput, in name order, as an exact-size heap copy so that
// a sanitizer sees a read past its end. A corpus that holds no file fails:
// a replay that ran nothing proves nothing. A target's own check failing
// (__builtin_trap) or a sanitizer report ends the program abnormally.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

namespace {

bool run_file(const std::filesystem::path &p) {
    std::ifstream in(p, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "%s: cannot read\n", p.c_str());
        return false;
    }
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::unique_ptr<uint8_t[]> copy(new uint8_t[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), copy.get());
    LLVMFuzzerTestOneInput(copy.get(), bytes.size());
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
    size_t ran = 0;
    for (int i = 1; i < argc; ++i) {
        std::vector<std::filesystem::path> files;
        std::error_code ec;
        if (std::filesystem::is_directory(argv[i], ec)) {
            for (const auto &e : std::filesystem::directory_iterator(argv[i], ec))
                if (e.is_regular_file()) files.push_back(e.path());
        } else {
            files.emplace_back(argv[i]);
        }
        std::sort(files.begin(), files.end());
        for (const auto &f : files) {
            if (!run_file(f)) return 1;
            ++ran;
        }
    }
    std::printf("%zu inputs replayed\n", ran);
    return ran > 0 ? 0 : 1;
}
