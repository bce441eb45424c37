// Internals of libqv_tr: level settings, the component registry and the
// trace file writer.
#pragma once

#include <cstdint>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "qv_tr.h"
#include "trace_format.h"

namespace qvtr {

// One "component:category=level" setting; "*" in either name means all.
struct LevelSetting {
    std::string component;
    std::string category;
    uint8_t level;
};

struct ParsedSettings {
    std::vector<LevelSetting> settings;
    bool malformed = false;  // some group or setting was ignored
};

// Parses the QV_TRACE grammar documented in qv_tr.h. Never fails: malformed
// parts are left out and flagged.
ParsedSettings parse_level_settings(std::string_view text);

// ASCII case-insensitive equality, as names are matched.
bool names_equal(std::string_view a, std::string_view b);

// The registered components and the level settings made while running.
class ComponentRegistry {
public:
    static ComponentRegistry &instance();

    int register_component(std::string_view name, tr_detail_level_t *levels,
                           std::span<const tr_category_description> cats);
    int unregister_component(std::string_view name);
    int set_levels(std::string_view text);

private:
    struct Category {
        int id;
        std::string name;
        uint8_t minimum;
    };
    struct Component {
        std::string name;
        tr_detail_level_t *levels;
        std::vector<Category> categories;
    };

    ComponentRegistry() = default;
    static void apply(const Component &component, const std::vector<LevelSetting> &settings);
    void remember(LevelSetting setting);

    std::mutex mutex_;
    std::vector<Component> components_;
    std::vector<LevelSetting> run_time_settings_;
};

// The process's trace file.
class TraceFile {
public:
    // Opens (creating it if needed) the file at path for appending.
    explicit TraceFile(const std::string &path);
    ~TraceFile();
    TraceFile(const TraceFile &) = delete;
    TraceFile &operator=(const TraceFile &) = delete;

    bool is_open() const { return fd_ >= 0; }
    // Encodes one record, stamped with the time and the calling thread, and
    // appends it with a single write.
    int write_record(std::string_view component, uint32_t id, PayloadKind kind,
                     std::span<const Item> items);

private:
    int fd_ = -1;
};

// The file named by QV_TRACE_FILE, opened at the first call; nullptr when the
// variable is unset or empty.
TraceFile *process_trace_file();

}  // namespace qvtr
