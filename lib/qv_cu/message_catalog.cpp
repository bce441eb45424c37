// Message catalogue lookup. A catalogue is looked for first where catopen
// finds it for the current locale (NLSPATH, LANG), then at the installed
// location share/qvsec/ beside the directory holding this library, so an
// installed tree needs no setting. Opened catalogues are cached by name for
// the life of the process; a catalogue that was not found is looked for
// again next time, so one installed (or an NLSPATH set) later is used.
#include <dlfcn.h>
#include <nl_types.h>

#include <cstring>
#include <map>
#include <mutex>

#include "cu_internal.h"

namespace qvcu {
namespace {

class CatalogueCache {
public:
    // The open catalogue, or (nl_catd)-1.
    nl_catd get(const char *name) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = open_.find(name);
        if (it != open_.end()) return it->second;
        nl_catd cd = open_catalogue(name);
        if (cd != kNone) open_.emplace(name, cd);
        return cd;
    }

    static inline const nl_catd kNone = reinterpret_cast<nl_catd>(-1);

private:
    static nl_catd open_catalogue(const char *name) {
        nl_catd cd = catopen(name, NL_CAT_LOCALE);
        if (cd != kNone || std::strchr(name, '/') != nullptr) return cd;
        std::string dir = library_directory();
        if (dir.empty()) return kNone;
        std::string path = dir + "/../share/qvsec/" + name;
        return catopen(path.c_str(), NL_CAT_LOCALE);
    }

    // The directory of the object that holds this code (libqv_cu.so).
    static std::string library_directory() {
        Dl_info info{};
        if (dladdr(reinterpret_cast<void *>(&library_directory), &info) == 0 || info.dli_fname == nullptr)
            return {};
        std::string file = info.dli_fname;
        size_t slash = file.rfind('/');
        return slash == std::string::npos ? std::string(".") : file.substr(0, slash);
    }

    std::mutex mutex_;
    std::map<std::string, nl_catd, std::less<>> open_;
};

// Never destroyed: another thread may still format a message during exit.
CatalogueCache &cache() {
    static CatalogueCache *c = new CatalogueCache;
    return *c;
}

}  // namespace

std::optional<std::string> catalogue_text(const char *catalogue, int set, int number) {
    if (catalogue == nullptr || *catalogue == '\0') return std::nullopt;
    nl_catd cd = cache().get(catalogue);
    if (cd == CatalogueCache::kNone) return std::nullopt;
    const char *text = catgets(cd, set, number, nullptr);
    if (text == nullptr) return std::nullopt;
    return std::string(text);
}

}  // namespace qvcu
