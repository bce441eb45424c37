// The editing tree of a sub-ACL, for entries whose identifier comparison is
// not a plain string comparison (stored lengths that end the compared bytes
// before an identifier's NUL). Such comparisons need not be transitive, so
// the result depends on the tree's shape, and only building the tree gives
// it.
#include "acl_edit.h"

#include "acl_format.h"

namespace {

// Walks from the root to where entry belongs. Returns the node holding an
// equal identifier, or NULL with *link the empty child to fill.
sec_acltree_t find(sec_acltree_t root, const uint8_t *entry, sec_acltree_t **link, sec_acltree_t *root_link) {
    *link = root_link;
    for (sec_acltree_t n = root; n != nullptr;) {
        int c = acl::compare_ids(n->sat_entry, entry);
        if (c == 0) return n;
        *link = c > 0 ? &n->sat_left : &n->sat_right;
        n = **link;
    }
    return nullptr;
}

}  // namespace

AclTreeResult acl_tree_edit(const std::vector<const uint8_t *> &stored, const uint8_t *entry, bool add,
                            std::vector<const uint8_t *> &out) {
    std::vector<sec_acltree_desc> nodes;
    nodes.reserve(stored.size() + 1);  // never reallocated: nodes point at each other
    sec_acltree_t root = nullptr;
    sec_acltree_t *link = nullptr;
    for (const uint8_t *e : stored) {
        if (find(root, e, &link, &root) != nullptr) return AclTreeResult::duplicate;
        nodes.push_back({e, nullptr, nullptr});
        *link = &nodes.back();
    }
    sec_acltree_t same = find(root, entry, &link, &root);
    if (add) {
        if (same != nullptr) {
            same->sat_entry = entry;
        } else {
            nodes.push_back({entry, nullptr, nullptr});
            *link = &nodes.back();
        }
    } else {
        // A node cleared earlier would have been skipped by the search too;
        // here only the one node found is cleared.
        if (same == nullptr) return AclTreeResult::not_found;
        same->sat_entry = nullptr;
    }
    // In order without recursion: a degenerate tree is as deep as it is long.
    out.clear();
    out.reserve(nodes.size());
    std::vector<sec_acltree_t> path;
    path.reserve(nodes.size());
    for (sec_acltree_t n = root; n != nullptr || !path.empty();) {
        for (; n != nullptr; n = n->sat_left) path.push_back(n);
        n = path.back();
        path.pop_back();
        if (n->sat_entry != nullptr) out.push_back(n->sat_entry);
        n = n->sat_right;
    }
    return AclTreeResult::ok;
}
