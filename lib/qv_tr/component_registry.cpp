// The registered components: their level arrays, written here and read by the
// components without a lock, and the settings made while running.
#include "internal.h"

#include <pthread.h>

#include <algorithm>
#include <cstdlib>

namespace qvtr {
namespace {

// Components test their level bytes without a lock; the stores at least are
// single-byte atomic so that a test never sees a torn value.
void store_level(tr_detail_level_t *slot, uint8_t level) {
    __atomic_store_n(slot, level, __ATOMIC_RELAXED);
}

bool matches(std::string_view pattern, std::string_view name) {
    return pattern == "*" || names_equal(pattern, name);
}

}  // namespace

ComponentRegistry &ComponentRegistry::instance() {
    // Never destroyed: components may unregister from their own exit handlers.
    static ComponentRegistry *registry = [] {
        auto *r = new ComponentRegistry;
        // A fork while another thread holds the lock would leave it locked
        // for ever in the child.
        pthread_atfork([] { instance().mutex_.lock(); },
                       [] { instance().mutex_.unlock(); },
                       [] { instance().mutex_.unlock(); });
        return r;
    }();
    return *registry;
}

void ComponentRegistry::apply(const Component &component,
                              const std::vector<LevelSetting> &settings) {
    for (const LevelSetting &s : settings) {
        if (!matches(s.component, component.name))
            continue;
        for (const Category &c : component.categories) {
            if (matches(s.category, c.name))
                store_level(&component.levels[c.id], std::max(s.level, c.minimum));
        }
    }
}

// Keeps a setting for later registrations, dropping the earlier ones it
// overrides completely, so that repeated changes do not pile up.
// Takes the setting by moving it in: with room reserved beforehand this
// cannot fail.
void ComponentRegistry::remember(LevelSetting setting) {
    std::erase_if(run_time_settings_, [&](const LevelSetting &old) {
        bool same_components = setting.component == "*" ||
                               names_equal(old.component, setting.component);
        bool same_categories = setting.category == "*" ||
                               names_equal(old.category, setting.category);
        return same_components && same_categories;
    });
    run_time_settings_.push_back(std::move(setting));
}

int ComponentRegistry::register_component(std::string_view name, tr_detail_level_t *levels,
                                          std::span<const tr_category_description> cats) {
    Component component{std::string(name), levels, {}};
    component.categories.reserve(cats.size());
    for (const tr_category_description &c : cats) {
        if (c.category_id < 0)
            return TR_E_ARGUMENT;
        component.categories.push_back(
            {c.category_id, c.category_name ? c.category_name : "", c.minimum_level_of_detail});
    }
    // QV_TRACE is read at each registration so that a process can set it
    // before starting a component. A set-user-id program ignores it: the
    // variable belongs to the less privileged user who started it.
    const char *env = secure_getenv("QV_TRACE");
    ParsedSettings from_env = parse_level_settings(env ? env : "");

    std::lock_guard lock(mutex_);
    components_.reserve(components_.size() + 1);  // no failure once levels are written
    for (size_t i = 0; i < cats.size(); ++i)
        store_level(&levels[cats[i].category_id],
                    std::max(cats[i].default_level_of_detail, cats[i].minimum_level_of_detail));
    apply(component, from_env.settings);
    apply(component, run_time_settings_);

    auto known = std::find_if(components_.begin(), components_.end(),
                              [&](const Component &c) { return names_equal(c.name, name); });
    if (known != components_.end())
        *known = std::move(component);
    else
        components_.push_back(std::move(component));
    return TR_OK;
}

int ComponentRegistry::unregister_component(std::string_view name) {
    std::lock_guard lock(mutex_);
    auto known = std::find_if(components_.begin(), components_.end(),
                              [&](const Component &c) { return names_equal(c.name, name); });
    if (known == components_.end())
        return TR_E_NOT_FOUND;
    for (const Category &c : known->categories)
        store_level(&known->levels[c.id], 0);
    components_.erase(known);
    return TR_OK;
}

int ComponentRegistry::set_levels(std::string_view text) {
    ParsedSettings parsed = parse_level_settings(text);
    std::lock_guard lock(mutex_);
    // Everything that allocates comes before the first level is written, so
    // that running out of memory changes nothing: the settings are moved,
    // not copied, into the room reserved here.
    run_time_settings_.reserve(run_time_settings_.size() + parsed.settings.size());
    for (const Component &c : components_)
        apply(c, parsed.settings);
    for (LevelSetting &s : parsed.settings)
        remember(std::move(s));
    return parsed.malformed ? TR_E_BAD_SETTING : TR_OK;
}

}  // namespace qvtr
