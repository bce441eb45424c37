// Editing one sub-ACL: the order of its entries after an add or a delete.
#pragma once

#include <cstdint>
#include <vector>

#include "qv_sec.h"

// The node of the editing tree.
typedef struct sec_acltree_s {
    const uint8_t *sat_entry;  // NULL once deleted
    struct sec_acltree_s *sat_left;
    struct sec_acltree_s *sat_right;
} sec_acltree_desc, *sec_acltree_t;

enum class AclTreeResult { ok, duplicate, not_found };

// The editing tree, literally: the stored entries inserted in stored order
// (an identifier met twice is a duplicate), the new entry inserted with
// replacement (add) or its node's entry cleared (delete), and the entries
// read back in order into out. Every entry must be readable
// (acl::entry_readable). Quadratic on sorted input: used only for sub-ACLs
// whose comparison is not plain strcmp, where no faster way gives the same
// result. Throws std::bad_alloc.
AclTreeResult acl_tree_edit(const std::vector<const uint8_t *> &stored, const uint8_t *entry, bool add,
                            std::vector<const uint8_t *> &out);
