// Who has to go when there are too many connections. A new question is worth more than an old connection that
// rests: a question that isn't taken is one that the layer decides without the analyzer. So nobody is turned
// away at the door; instead the connection goes that has rested longest, of the process that has more than
// its share, or of all when all are too many.
//
// The process is the one that the requests name: a loopback connection doesn't tell who its peer is, and to
// look the port up is different work on every system. A client that gives wrong names can drive out what
// rests, as one that says nothing can, but it keeps nobody from being answered. Connections on which nothing
// was asked yet share one share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <unordered_map>

class ConnectionShares {
  public:
    /// A process id, or kSilent for those that have asked nothing yet.
    using Owner = std::int64_t;
    static constexpr Owner kSilent = -1;

    /// At most `ofAll` connections, and `ofOne` of one owner; at least 1 each.
    ConnectionShares(std::size_t ofAll, std::size_t ofOne) : ofAll_(ofAll), ofOne_(ofOne) {}

    struct Surplus {
        std::uint64_t key;
        const char* reason;
    };

    /// A new connection, or one on which `owner` has asked something. The result has to go now, if anything
    /// does; it is never `key` itself.
    std::optional<Surplus> Use(std::uint64_t key, Owner owner);

    void Forget(std::uint64_t key);

    /// The oldest connection on which nothing was asked yet.
    std::optional<std::uint64_t> OldestSilent() const;

  private:
    /// Keys, the longest rested first.
    using Queue = std::list<std::uint64_t>;
    struct Place {
        Owner owner;
        Queue::iterator inAll;
        Queue::iterator inOwners;
    };

    const std::size_t ofAll_;
    const std::size_t ofOne_;
    Queue all_;
    std::unordered_map<Owner, Queue> owners_;  ///< none of the queues is empty
    std::unordered_map<std::uint64_t, Place> places_;
};
