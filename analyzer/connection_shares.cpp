// See connection_shares.h.
#include "analyzer/connection_shares.h"

std::optional<ConnectionShares::Surplus> ConnectionShares::Use(std::uint64_t key, Owner owner) {
    Forget(key);
    Queue& owners = owners_[owner];
    places_[key] = {owner, all_.insert(all_.end(), key), owners.insert(owners.end(), key)};
    if (owners.size() > ofOne_) {
        return Surplus{owners.front(), owner == kSilent
                                           ? "too many have asked nothing, and it is the oldest"
                                           : "its process has too many, and it has rested longest"};
    }
    if (all_.size() > ofAll_) return Surplus{all_.front(), "there are too many, and it has rested longest"};
    return std::nullopt;
}

void ConnectionShares::Forget(std::uint64_t key) {
    const auto place = places_.find(key);
    if (place == places_.end()) return;
    all_.erase(place->second.inAll);
    const auto owners = owners_.find(place->second.owner);
    owners->second.erase(place->second.inOwners);
    if (owners->second.empty()) owners_.erase(owners);
    places_.erase(place);
}

std::optional<std::uint64_t> ConnectionShares::OldestSilent() const {
    const auto silent = owners_.find(kSilent);
    if (silent == owners_.end()) return std::nullopt;
    return silent->second.front();
}
