// Exported routines that register components and change their levels.
#include <cstring>
#include <string_view>

#include "error_guard.h"
#include "internal.h"

using qvtr::ComponentRegistry;
using qvtr::guarded_call;

namespace {

bool valid_component_name(const char *comp) {
    return comp != nullptr && *comp != '\0' &&
           std::strlen(comp) <= qvtr::kMaxComponentLength;
}

}  // namespace

extern "C" int tr_register_component_1(const char *comp, tr_detail_level_t *levels,
                                       const tr_category_description *cats, int ncats) {
    if (!valid_component_name(comp) || ncats < 0 ||
        (ncats > 0 && (levels == nullptr || cats == nullptr)))
        return TR_E_ARGUMENT;
    return guarded_call([&] {
        return ComponentRegistry::instance().register_component(
            comp, levels, std::span(cats, size_t(ncats)));
    });
}

extern "C" int tr_unregister_component_1(const char *comp) {
    if (!valid_component_name(comp))
        return TR_E_ARGUMENT;
    return guarded_call([&] { return ComponentRegistry::instance().unregister_component(comp); });
}

extern "C" int tr_set_levels_1(const char *settings) {
    if (settings == nullptr)
        return TR_E_ARGUMENT;
    return guarded_call([&] { return ComponentRegistry::instance().set_levels(settings); });
}
