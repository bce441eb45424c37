// The replay cache of the service side: which client assertions (issuing key
// id and the daemon's nonce) were accepted, until they could no longer pass
// the validity check anyway. Entries are pruned on every insertion, oldest
// expiry first, so memory follows the rate of new clients times the
// assertion lifetime; the cap turns a flood into refusals of new clients,
// not into unbounded memory.
#include "host_mech.h"

namespace qvhostmech {

void ReplayCache::prune(std::int64_t now) {
    // An entry kept until t is needed while now <= t: the validity check
    // (expiry + skew) accepts up to and including that second.
    while (!by_expiry_.empty() && by_expiry_.begin()->first < now) {
        entries_.erase(by_expiry_.begin()->second);
        by_expiry_.erase(by_expiry_.begin());
    }
}

ReplayCache::Result ReplayCache::insert(std::span<const std::uint8_t, kKeyBytes> key, std::int64_t keep_until,
                                        std::int64_t now) {
    std::string k(reinterpret_cast<const char *>(key.data()), key.size());
    std::lock_guard<std::mutex> g(lock_);
    prune(now);
    if (entries_.count(k) != 0) return Result::kReplayed;
    if (entries_.size() >= cap_) return Result::kFull;
    entries_.emplace(k, keep_until);
    by_expiry_.emplace(keep_until, std::move(k));
    return Result::kFresh;
}

std::size_t ReplayCache::size() const {
    std::lock_guard<std::mutex> g(lock_);
    return entries_.size();
}

// The first service handle's cap sizes it; the module keeps it for the
// process's life, so that a client token accepted by one handle is a replay
// for every other.
ReplayCache &replay_cache(std::size_t cap) {
    static ReplayCache cache(cap);
    return cache;
}

}  // namespace qvhostmech
