// Adding entries to and deleting entries from ACL buffers.
//
// The result is that of the editing tree (acl_edit.h): the stored entries
// loaded in stored order with duplicates refused, the change applied, the
// entries written back in order. When every identifier of the sub-ACL and
// the entry compare as plain strings (always so for entries made by
// sec_create_acle), that result is the sorted set of identifiers with the
// change applied, and is made here in one pass over the buffer: the pass
// checks the entries, notices whether they are stored in order, finds the
// entry's place and copies the entries into the new buffer as it goes. A
// sub-ACL stored out of order is sorted instead; only odd stored lengths
// need the tree itself.
#include <algorithm>
#include <bit>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "acl_arguments.h"
#include "acl_edit.h"
#include "acl_format.h"
#include "byte_io.h"
#include "errors.h"
#include "library_init.h"

namespace {

constexpr const char *kModify = "sec__modify_acles_in_acl";

qv_int32_t damaged() { return sec_report(SEC_S_NO_MEMORY, MSG_2650_038); }

qv_int32_t no_memory(size_t size) {
    return sec_report(SEC_S_NO_MEMORY, MSG_2650_032, kModify, static_cast<int>(std::min<size_t>(size, INT_MAX)));
}

// The entry's type is printed where the message names a mechanism code.
qv_int32_t not_found(const uint8_t *entry) {
    return sec_report(SEC_S_NO_ACL_ENTRIES, MSG_2650_035, static_cast<unsigned>(acl::entry_type(entry)),
                      acl::entry_id(entry));
}

// The entries of the changed sub-ACL in their new order, as byte ranges.
using Pieces = std::vector<std::span<const uint8_t>>;

using OutBuffer = std::unique_ptr<uint8_t, SecFree>;

// Sets the changed sub-ACL's count and next offset and the ACL's sah_count
// in out (total bytes, entries of them in the sub-ACL), and hands it to the
// caller in place of the old buffer.
qv_int32_t install(OutBuffer out, size_t total, const acl::SubAcl &s, size_t entries, int32_t count,
                   sec_acl_buffer_t acl) {
    uint8_t *const o = out.get();
    acl::put_be32(o + s.head + acl::kSshCount, static_cast<uint32_t>(count));
    if (!s.last) acl::put_be32(o + s.head + acl::kSshNextoff, static_cast<uint32_t>(acl::kSubHeadLen + entries));
    uint32_t total_count = acl::be32(o + acl::kSahCount);
    acl::put_be32(o + acl::kSahCount, total_count + static_cast<uint32_t>(count) - static_cast<uint32_t>(s.count));

    std::free(acl->value);
    acl->value = out.release();
    acl->length = static_cast<qv_int32_t>(total);
    return 0;
}

// Builds the new buffer: the old one with sub-ACL s's entries replaced by
// pieces (count entries in all), its count and next offset updated, and
// sah_count moved by the change of count. Hands it to the caller on
// success, freeing the old one.
qv_int32_t rebuild(std::span<const uint8_t> old, const acl::SubAcl &s, const Pieces &pieces, int32_t count,
                   sec_acl_buffer_t acl) {
    size_t entries = 0;
    for (auto p : pieces) entries += p.size();
    const size_t old_entries = s.end - s.begin;
    const size_t total = old.size() - old_entries + entries;
    if (total > INT32_MAX || entries > UINT32_MAX - acl::kSubHeadLen) return no_memory(total);
    OutBuffer out(static_cast<uint8_t *>(std::malloc(total)));
    if (out == nullptr) return no_memory(total);
    uint8_t *w = out.get();
    std::memcpy(w, old.data(), s.begin);
    w += s.begin;
    for (auto p : pieces) {
        std::memcpy(w, p.data(), p.size());
        w += p.size();
    }
    std::memcpy(w, old.data() + s.end, old.size() - s.end);
    return install(std::move(out), total, s, entries, count, acl);
}

// Appends a sub-ACL holding only the entry to an ACL without one for its
// type and mechanism (old empty: to a new empty ACL). last_head is the
// offset of the last sub-ACL's head, 0 when there is none.
qv_int32_t append_subacl(std::span<const uint8_t> old, size_t last_head, const uint8_t *entry,
                         sec_acl_buffer_t acl) {
    const size_t base = old.empty() ? acl::kHeadLen : old.size();
    const size_t elen = acl::entry_length(entry);
    const size_t total = base + acl::kSubHeadLen + elen;
    if (total > INT32_MAX) return no_memory(total);
    auto *out = static_cast<uint8_t *>(std::malloc(total));
    if (out == nullptr) return no_memory(total);
    if (old.empty()) {
        acl::put_be32(out, SEC_ACL_HEAD_MAGIC);
        acl::put_be32(out + acl::kSahStartoff, 0);
        acl::put_be32(out + acl::kSahVersion, SEC_ACL_VERSION);
        acl::put_be32(out + acl::kSahCount, 0);
    } else {
        std::memcpy(out, old.data(), old.size());
    }
    uint8_t *h = out + base;
    acl::put_be32(h, SEC_SUBACL_HEAD_MAGIC);
    acl::put_be32(h + acl::kSshType, 0);
    acl::put_be16(h + acl::kSshType, acl::entry_type(entry));
    acl::put_be32(h + acl::kSshMech, acl::entry_mech(entry));
    acl::put_be32(h + acl::kSshNextoff, 0);
    acl::put_be32(h + acl::kSshCount, 1);
    std::memcpy(h + acl::kSubHeadLen, entry, elen);
    if (last_head == 0)
        acl::put_be32(out + acl::kSahStartoff, static_cast<uint32_t>(acl::kHeadLen));
    else
        acl::put_be32(out + last_head + acl::kSshNextoff, static_cast<uint32_t>(base - last_head));
    acl::put_be32(out + acl::kSahCount, acl::be32(out + acl::kSahCount) + 1);

    std::free(acl->value);
    acl->value = out;
    acl->length = static_cast<qv_int32_t>(total);
    return 0;
}

// What one pass over a sub-ACL's entries finds out.
struct Scan {
    int32_t count = 0;
    bool plain = true;    // every comparison is strcmp
    bool sorted = true;   // strictly ascending (plain entries only)
    bool duplicate = false;
    size_t place = 0;     // offset of the first entry not below the new one
    bool equal = false;   // ... and it has the new entry's identifier
};

// Where strcmp decides between identifiers a and b, looking from index i
// on: the first index at which they differ or a ends, and the order there.
// a_room and b_room are the bytes that may be read at a and at b, and each
// holds a NUL; bytes after a NUL may be anything. Sixteen bytes are
// compared at once while both have room, and the order is read from the
// same registers rather than by loading the two bytes again.
struct Split {
    size_t at;
    int order;  // the sign of strcmp(a, b)
};

[[gnu::always_inline]] inline Split split(const uint8_t *a, size_t a_room, const uint8_t *b, size_t b_room,
                                          size_t i) {
#if defined(__SSE2__)
    const size_t room = std::min(a_room, b_room);
    for (; i + 16 <= room; i += 16) {
        const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i *>(a + i));
        const __m128i y = _mm_loadu_si128(reinterpret_cast<const __m128i *>(b + i));
        const unsigned same = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(x, y)));
        const unsigned ends = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(x, _mm_setzero_si128())));
        const unsigned stop = (same ^ 0xffffu) | ends;
        if (stop == 0) continue;
        const unsigned bit = stop & (0u - stop);
        const unsigned below = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_min_epu8(x, y), x)));
        const int order = (bit & same) != 0 ? 0 : (bit & below) != 0 ? -1 : 1;
        return {i + static_cast<size_t>(std::countr_zero(stop)), order};
    }
#else
    (void)a_room;
    (void)b_room;
#endif
    // Stops at a's NUL at the latest, or earlier at b's, where they differ.
    while (a[i] == b[i] && a[i] != 0) ++i;
    return {i, a[i] < b[i] ? -1 : a[i] > b[i] ? 1 : 0};
}

// The entry at e, with room bytes left in its sub-ACL: its length, or 0
// when it does not fit or has no NUL. plain is cleared for an entry whose
// comparisons are not strcmp.
[[gnu::always_inline]] inline uint32_t check_entry(const uint8_t *e, size_t room, bool &plain) {
    if (room < acl::kEntryHeadLen) return 0;
    const uint32_t len = acl::be32(e);
    // An entry as sec_create_acle makes it (17 bytes or more, its NUL
    // followed by two zero bytes) is readable and compares plainly,
    // whatever comes before: the search for its NUL is saved.
    if (len - (acl::kEntryHeadLen + 1) < room - acl::kEntryHeadLen && e[len - 3] == 0) return len;
    if (len < acl::kEntryHeadLen || len > room) return 0;
    const void *nul = std::memchr(e + acl::kIdOffset, 0, len - acl::kIdOffset);
    if (nul == nullptr) return 0;
    if (!acl::compares_plainly(e, static_cast<const uint8_t *>(nul) - (e + acl::kIdOffset))) plain = false;
    return len;
}

// Copies the entries of the sub-ACL being edited into the new buffer while
// the pass checks them, so that an edit of a sub-ACL stored in order reads
// the old buffer once. Input below `from` is copied, each byte to its offset
// moved by the shift given to start() (0 before the edited place). The
// pass's tight loops move a fixed 96 bytes at `from` every second entry
// (they stop 96 bytes before the buffer's end) and advance `from` by what
// the pass has left behind, trailing it by 64 bytes. Bytes moved ahead of
// `from` are moved again later: copies run in buffer order, and the head,
// the new entry and the rest of the buffer are written after the pass.
struct Copier {
    uint8_t *out = nullptr;  // null: not copying
    uintptr_t from = 0;      // the input's address below which it is copied
    uintptr_t delta = 0;     // added to an input address: where it is copied (wraps around)

    static constexpr uintptr_t kTrail = 64;
    static constexpr size_t kMove = 96;

    void start(const uint8_t *in, size_t at, ptrdiff_t shift) {
        from = reinterpret_cast<uintptr_t>(in + at);
        delta = reinterpret_cast<uintptr_t>(out) + static_cast<uintptr_t>(shift) - reinterpret_cast<uintptr_t>(in);
    }
    // One step of a tight loop that has checked the input below checked:
    // the new `from`. The loops keep `from` in a local (a member would be
    // stored and loaded again around every move).
    [[gnu::always_inline]] static uintptr_t step(uintptr_t from, uintptr_t delta, const uint8_t *checked) {
        move(reinterpret_cast<uint8_t *>(from + delta), reinterpret_cast<const uint8_t *>(from));
        const uintptr_t behind = reinterpret_cast<uintptr_t>(checked) - kTrail;
        return std::min(from + kMove, std::max(from, behind));
    }
    void flush(const uint8_t *in, size_t upto) {
        const uintptr_t to = reinterpret_cast<uintptr_t>(in + upto);
        if (out != nullptr && to > from)
            std::memcpy(reinterpret_cast<uint8_t *>(from + delta), reinterpret_cast<const uint8_t *>(from), to - from);
        from = std::max(from, to);
    }

private:
    // 16-byte moves: given memcpy, the compiler may emit a string
    // instruction whose start-up costs more than a step of the pass.
    [[gnu::always_inline]] static void move(uint8_t *to, const uint8_t *bytes) {
#if defined(__SSE2__)
        const auto *f = reinterpret_cast<const __m128i *>(bytes);
        auto *t = reinterpret_cast<__m128i *>(to);
        static_assert(kMove == 96);
        const __m128i a = _mm_loadu_si128(f), b = _mm_loadu_si128(f + 1), c = _mm_loadu_si128(f + 2),
                      d = _mm_loadu_si128(f + 3), e = _mm_loadu_si128(f + 4), g = _mm_loadu_si128(f + 5);
        _mm_storeu_si128(t, a);
        _mm_storeu_si128(t + 1, b);
        _mm_storeu_si128(t + 2, c);
        _mm_storeu_si128(t + 3, d);
        _mm_storeu_si128(t + 4, e);
        _mm_storeu_si128(t + 5, g);
#else
        std::memcpy(to, bytes, kMove);
#endif
    }
};

#if defined(__SSE2__)
// The first 16 bytes x and y of two identifiers: the bytes where strcmp
// stops (they differ, or x ends), and those where x is below y. The first
// stop decides, when there is one.
struct Window {
    unsigned stop;
    unsigned lower;
};

[[gnu::always_inline]] inline Window window(__m128i x, __m128i y) {
    const unsigned same = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(x, y)));
    const unsigned ends = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(x, _mm_setzero_si128())));
    const unsigned lower = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_max_epu8(x, y), y))) & ~same;
    return {(same ^ 0xffffu) | ends, lower};
}

// The first three bytes of an entry's length, apart from its last byte.
[[gnu::always_inline]] inline uint32_t high_length_bytes(const uint8_t *e) {
    uint16_t two;
    std::memcpy(&two, e, 2);
    return two | e[2];
}

[[gnu::always_inline]] inline __m128i load16(const uint8_t *p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
}

// Where the pass stands: the next entry, the identifier before it (the
// caller's entries so far are ascending), the entries counted, the copy.
struct Cursor {
    const uint8_t *e;
    const uint8_t *prev;
    int32_t count;
    Copier copy;
};

// The new entry's identifier, for the rare comparisons with it in the tight
// loops (out of line there: it keeps their registers free).
struct Key {
    const uint8_t *id;
    size_t room;
};

[[gnu::noinline]] Split split_key(const uint8_t *id, size_t room, const Key *key, size_t from) {
    return split(id, room, key->id, key->room, from);
}

// The tight inner loops of the pass, out of line so that the compiler keeps
// their variables in registers. Each runs entries as sec_create_acle makes
// them (17 bytes or more, the identifier's NUL followed by two zero bytes)
// that end by fast_end and whose first 16 bytes show them above the
// identifier before, copying as it goes when Copying, and stops before the
// first entry that needs the full step. Two entries per round, so that the
// copy moves twice as much half as often. Before the place, each entry must
// also be below the key (q: the prefix the key shares with the identifier
// before, moved on here).
template <bool Copying, bool BeforePlace>
[[gnu::always_inline]] inline Cursor run(Cursor k, const uint8_t *fast_end, const Key *key, size_t &q) {
    const uint8_t *e = k.e;
    const uint8_t *prev = k.prev;
    int32_t count = k.count;
    uintptr_t from = k.copy.from;
    const uintptr_t delta = k.copy.delta;
    const uintptr_t limit = reinterpret_cast<uintptr_t>(fast_end);
    // q as a bit among the window's 16 (bit 16: q is 16 or more).
    auto bit_of = [](size_t at) { return 1u << std::min<size_t>(at, 16); };
    unsigned shared = bit_of(q);
    __m128i x = load16(prev);
    auto entry = [&]() __attribute__((always_inline)) {
        // The next entry's place depends on this one's length: the chain
        // the pass cannot run ahead of. For entries under 256 bytes it goes
        // through the length's last byte alone; the others leave the loop.
        const uint32_t len = e[3];
        const uintptr_t next = reinterpret_cast<uintptr_t>(e) + len;
        if (high_length_bytes(e) != 0 || len < acl::kEntryHeadLen + 1 || next > limit || e[len - 3] != 0)
            return false;
        const uint8_t *id = e + acl::kIdOffset;
        const __m128i y = load16(id);
        const Window w = window(x, y);
        const unsigned first = w.stop & (0u - w.stop);
        if ((first & w.lower) == 0) return false;
        if constexpr (BeforePlace) {
            if (first < shared) return false;  // above the key
            if (first == shared) {
                // The entry's own bytes hold its NUL.
                const Split c = split_key(id, len - acl::kIdOffset, key, static_cast<size_t>(std::countr_zero(first)));
                if (c.order >= 0) return false;
                shared = bit_of(c.at);
                q = c.at;
            }
        }
        e = reinterpret_cast<const uint8_t *>(next);
        ++count;
        prev = id;
        x = y;
        return true;
    };
    while (entry() && entry()) {
        if constexpr (Copying) from = Copier::step(from, delta, e);
    }
    Cursor at = k;
    at.e = e;
    at.prev = prev;
    at.count = count;
    at.copy.from = from;
    return at;
}

template <bool Copying>
[[gnu::noinline]] Cursor run_below_key(Cursor k, const uint8_t *fast_end, const Key *key, size_t &q) {
    return run<Copying, true>(k, fast_end, key, q);
}

// After the place: the order alone.
template <bool Copying>
[[gnu::noinline]] Cursor run_ascending(Cursor k, const uint8_t *fast_end) {
    size_t unused = 0;
    return run<Copying, false>(k, fast_end, nullptr, unused);
}
#endif

// One pass over the entries: checks each one's length and NUL, and while
// the identifiers are plain and ascending, finds the new entry's place. The
// order check compares each identifier with the one before it; the place
// needs no second comparison for most entries: with q the length of the
// prefix the key shares with the previous identifier (which is below it)
// and p that shared by the previous and this one, p > q puts this one below
// the key as well and p < q above it; only p == q compares on, from q.
// Three loops, each keeping only what it still needs: before the place,
// after it, and once the order is settled. The first two run usual entries
// whose first 16 bytes decide their order in a tight inner loop, and copy
// the entries as they go (copy; add_len: the new entry's length for an add,
// 0 for a delete); copying stops once the sub-ACL turns out not to be plain
// and ascending.
bool scan(std::span<const uint8_t> buf, const acl::SubAcl &s, const uint8_t *entry, Scan &r, Copier &copy,
          size_t add_len) {
    const uint8_t *const base = buf.data();
    const uint8_t *const buf_end = base + buf.size();
    const uint8_t *const end = base + s.end;
    // The tight loops run entries that end by fast_end, which leaves room
    // for a 16-byte load of their identifier and for the copy's moves.
    const size_t room = std::max(acl::kIdOffset + 16, Copier::kMove);
    const uint8_t *const fast_end = base + std::min(s.end, buf.size() >= room ? buf.size() - room + 1 : 0);
    const uint8_t *e = base + s.begin;
    const uint8_t *prev = nullptr;
    const uint8_t *const key = acl::bytes_of(acl::entry_id(entry));
    const size_t key_room = acl::entry_length(entry) - acl::kIdOffset;
    auto room_at = [buf_end](const uint8_t *id) { return static_cast<size_t>(buf_end - id); };
    int32_t count = 0;
    bool plain = true;
    bool placed = false;
#if defined(__SSE2__)
    const Key fast_key{key, key_room};
    auto resume = [&](const Cursor &k) {
        e = k.e;
        prev = k.prev;
        count = k.count;
        copy = k.copy;
    };
#endif
    r.place = s.end;
    // Before the place: every identifier so far is below the key.
    for (size_t q = 0; e < end && !placed;) {
#if defined(__SSE2__)
        if (prev != nullptr && e < fast_end) {
            const Cursor here{e, prev, count, copy};
            resume(copy.out != nullptr ? run_below_key<true>(here, fast_end, &fast_key, q)
                                       : run_below_key<false>(here, fast_end, &fast_key, q));
            if (e >= end) break;
        }
#endif
        const uint32_t len = check_entry(e, static_cast<size_t>(end - e), plain);
        if (len == 0) return false;
        const uint8_t *id = e + acl::kIdOffset;
        e += len;
        ++count;
        if (!plain) break;
        size_t from = 0;
        if (prev != nullptr) {
            const Split c = split(prev, room_at(prev), id, room_at(id), 0);
            if (c.order >= 0) {
                r.sorted = false;
                r.duplicate = c.order == 0;
                break;
            }
            from = c.at;
        }
        prev = id;
        if (from > q) continue;  // shares more with the one before than that with the key: below the key
        if (from == q) {
            const Split c = split(id, room_at(id), key, key_room, q);
            q = c.at;
            r.equal = c.order == 0;
            if (c.order < 0) continue;
        }
        placed = true;
        r.place = static_cast<size_t>(id - acl::kIdOffset - base);
        // Past the place, entries move by the new entry's length, less the
        // length of the one it replaces or deletes.
        copy.flush(base, r.place);
        copy.start(base, r.place + (r.equal ? len : 0),
                   static_cast<ptrdiff_t>(add_len) - (r.equal ? static_cast<ptrdiff_t>(len) : 0));
    }
    if (!plain || !r.sorted) copy.out = nullptr;
    // After the place: the order check alone.
    for (bool comparing = plain && r.sorted; e < end && comparing;) {
#if defined(__SSE2__)
        if (e < fast_end) {
            const Cursor here{e, prev, count, copy};
            resume(copy.out != nullptr ? run_ascending<true>(here, fast_end) : run_ascending<false>(here, fast_end));
            if (e >= end) break;
        }
#endif
        const uint32_t len = check_entry(e, static_cast<size_t>(end - e), plain);
        if (len == 0) return false;
        const uint8_t *id = e + acl::kIdOffset;
        e += len;
        ++count;
        comparing = plain;
        if (!plain) break;
        const Split c = split(prev, room_at(prev), id, room_at(id), 0);
        if (c.order >= 0) {
            r.sorted = comparing = false;
            r.duplicate = c.order == 0;
        }
        prev = id;
    }
    if (!plain || !r.sorted) copy.out = nullptr;
    copy.flush(base, s.end);
    // Settled: the checks alone (an entry that does not compare plainly
    // still sends the edit to the tree).
    while (e < end) {
        const uint32_t len = check_entry(e, static_cast<size_t>(end - e), plain);
        if (len == 0) return false;
        e += len;
        ++count;
    }
    r.plain = plain;
    r.count = count;
    return count == s.count;
}

std::vector<const uint8_t *> stored_entries(std::span<const uint8_t> buf, const acl::SubAcl &s) {
    std::vector<const uint8_t *> v;
    v.reserve(static_cast<size_t>(s.count));
    for (size_t off = s.begin; off < s.end; off += acl::be32(buf.data() + off)) v.push_back(buf.data() + off);
    return v;
}

Pieces pieces_of(const std::vector<const uint8_t *> &entries) {
    Pieces p;
    p.reserve(entries.size());
    for (const uint8_t *e : entries) p.emplace_back(e, acl::entry_length(e));
    return p;
}

// A sub-ACL in stored order: everything before the entry's place, the entry
// (add), everything after the entry it replaces or deletes. copied holds the
// sub-ACL's entries at their new offsets when the pass could copy them;
// copy_failed says that its allocation failed.
qv_int32_t edit_in_order(std::span<const uint8_t> buf, const acl::SubAcl &s, const Scan &r, const uint8_t *entry,
                         bool add, OutBuffer copied, bool copy_failed, sec_acl_buffer_t acl) {
    if (!add && !r.equal) return not_found(entry);
    const uint8_t *b = buf.data();
    const size_t after = r.equal ? r.place + acl::be32(b + r.place) : r.place;
    const int32_t count = r.count + (add ? (r.equal ? 0 : 1) : -1);
    const size_t entry_len = add ? acl::entry_length(entry) : 0;
    const size_t entries = (s.end - s.begin) - (after - r.place) + entry_len;
    const size_t total = buf.size() - (s.end - s.begin) + entries;
    if (copy_failed) return no_memory(total);
    if (copied == nullptr) {
        Pieces p;
        p.reserve(3);
        p.emplace_back(b + s.begin, r.place - s.begin);
        if (add) p.emplace_back(entry, entry_len);
        p.emplace_back(b + after, s.end - after);
        return rebuild(buf, s, p, count, acl);
    }
    uint8_t *o = copied.get();
    std::memcpy(o, b, s.begin);
    if (add) std::memcpy(o + r.place, entry, entry_len);
    std::memcpy(o + s.begin + entries, b + s.end, buf.size() - s.end);
    return install(std::move(copied), total, s, entries, count, acl);
}

// A plain sub-ACL stored out of order: sorted, then edited.
qv_int32_t edit_unsorted(std::span<const uint8_t> buf, const acl::SubAcl &s, const uint8_t *entry, bool add,
                         sec_acl_buffer_t acl) {
    std::vector<const uint8_t *> v = stored_entries(buf, s);
    auto less = [](const uint8_t *a, const uint8_t *b) { return acl::compare_ids(a, b) < 0; };
    std::sort(v.begin(), v.end(), less);
    for (size_t i = 1; i < v.size(); ++i)
        if (acl::compare_ids(v[i - 1], v[i]) == 0) return sec_report(SEC_S_INTERNAL, MSG_2650_033);
    auto at = std::lower_bound(v.begin(), v.end(), entry, less);
    const bool equal = at != v.end() && acl::compare_ids(*at, entry) == 0;
    if (add) {
        if (equal)
            *at = entry;
        else
            v.insert(at, entry);
    } else {
        if (!equal) return not_found(entry);
        v.erase(at);
    }
    return rebuild(buf, s, pieces_of(v), static_cast<int32_t>(v.size()), acl);
}

qv_int32_t edit_with_tree(std::span<const uint8_t> buf, const acl::SubAcl &s, const uint8_t *entry, bool add,
                          sec_acl_buffer_t acl) {
    std::vector<const uint8_t *> out;
    switch (acl_tree_edit(stored_entries(buf, s), entry, add, out)) {
        case AclTreeResult::duplicate:
            return sec_report(SEC_S_INTERNAL, MSG_2650_033);
        case AclTreeResult::not_found:
            return not_found(entry);
        case AclTreeResult::ok:
            break;
    }
    return rebuild(buf, s, pieces_of(out), static_cast<int32_t>(out.size()), acl);
}

qv_int32_t modify(const uint8_t *entry, bool add, sec_acl_buffer_t acl) {
    if (acl->value == nullptr || acl->length == 0) {
        if (!add) return not_found(entry);
        return append_subacl({}, 0, entry, acl);
    }
    if (acl->length < 0) return damaged();
    std::span<const uint8_t> buf(acl::bytes_of(acl->value), static_cast<size_t>(acl->length));
    const uint16_t type = acl::entry_type(entry);
    const uint32_t mech = acl::entry_mech(entry);
    acl::SubAcl target;
    bool found = false;
    size_t last_head = 0;
    // Every head is checked, not only those up to the sub-ACL changed: the
    // rest of the buffer is copied into the new one.
    bool intact = acl::walk_subacls(buf, [&](const acl::SubAcl &s) {
        if (!found && s.type == type && s.mech == mech) {
            target = s;
            found = true;
        }
        last_head = s.head;
        return true;
    });
    if (!intact) return damaged();
    if (!found) {
        if (!add) return not_found(entry);
        return append_subacl(buf, last_head, entry, acl);
    }
    // The new buffer is allocated before the pass, at its largest size, so
    // that the pass can copy the entries it reads (a sub-ACL stored in order,
    // the usual case).
    const size_t add_len = add ? acl::entry_length(entry) : 0;
    Copier copy;
    OutBuffer copied;
    bool copy_failed = false;
    if (buf.size() + add_len <= INT32_MAX) {
        copied.reset(static_cast<uint8_t *>(std::malloc(buf.size() + add_len)));
        copy.out = copied.get();
        copy_failed = copied == nullptr;
    }
    copy.start(buf.data(), target.begin, 0);
    Scan r;
    if (!scan(buf, target, entry, r, copy, add_len)) return damaged();
    if (!add && r.count == 0) return not_found(entry);
    if (r.plain && acl::compares_plainly(entry, std::strlen(acl::entry_id(entry)))) {
        if (r.duplicate) return sec_report(SEC_S_INTERNAL, MSG_2650_033);
        if (r.sorted) return edit_in_order(buf, target, r, entry, add, std::move(copied), copy_failed, acl);
        return edit_unsorted(buf, target, entry, add, acl);
    }
    return edit_with_tree(buf, target, entry, add, acl);
}

}  // namespace

extern "C" {

qv_int32_t sec__modify_acles_in_acl(sec_acle_t acle, sec_boolean_t add, sec_acl_buffer_t acl) {
    try {
        return modify(acl::bytes_of(acle), add != 0, acl);
    } catch (const std::bad_alloc &) {
        // Only the vectors of the sorting and tree paths throw: one pointer
        // per entry of the sub-ACL, and as many tree nodes.
        return no_memory(static_cast<size_t>(acl->length) / acl::kEntryHeadLen * sizeof(sec_acltree_desc));
    }
}

}  // extern "C"

namespace {

qv_int32_t add_or_delete(const char *routine, sec_acle_t acle, sec_boolean_t release, sec_acl_buffer_t acl,
                         bool add) {
    // An entry's length must cover its header and its identifier's NUL, or
    // the comparison would read past it.
    if (acle == nullptr || !acl::entry_readable(acl::bytes_of(acle), acl::entry_length(acle)))
        return sec_acl_bad_argument(routine, 1, acle);
    if (acl == nullptr) return sec_acl_bad_argument(routine, 3, acl);
    qv_int32_t rc = sec_guard([&] { return sec__modify_acles_in_acl(acle, add ? 1 : 0, acl); });
    if (rc == 0 && release == 1) std::free(acle);
    return rc;
}

}  // namespace

extern "C" {

qv_int32_t sec_add_acle_to_acl(sec_acle_t acle, sec_boolean_t release, sec_acl_buffer_t acl) {
    sec_init_once();
    qv_int32_t rc = add_or_delete("sec_add_acle_to_acl", acle, release, acl, true);
    sec__trace_routine_end("sec_add_acle_to_acl", rc, nullptr);
    return rc;
}

qv_int32_t sec_del_acle_from_acl(sec_acle_t acle, sec_boolean_t release, sec_acl_buffer_t acl) {
    sec_init_once();
    qv_int32_t rc = add_or_delete("sec_del_acle_from_acl", acle, release, acl, false);
    sec__trace_routine_end("sec_del_acle_from_acl", rc, nullptr);
    return rc;
}

}  // extern "C"
