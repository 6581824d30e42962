// Which provider a socket handle belongs to, and the value that the provider keeps with it. Every call on a
// socket asks here, and a layer asks again for its context, so a look-up is two loads: handle values are
// small multiples of four, which index a table of chunks made at need and never freed.
//
// Any thread may call, also for one handle at the same time. A handle's entry is one word that is exchanged
// as a whole, so every look-up sees some moment of the handle's life; a handle that is closed and given out
// again meanwhile may be seen as either. Add and Remove for handles of one value do not overlap: the value is
// given out anew only after the handle was closed, which the remover does last.
#pragma once

#include <winsock2.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace winsock_host {

class Provider;

class SocketTable {
  public:
    /// What an entry says: the owner, and whether Winsock itself made the handle.
    struct Owner {
        Provider* provider = nullptr;
        bool layered = false;
    };

    /// The owner; no provider when the handle is no socket.
    Owner Find(SOCKET s) const noexcept { return Decode(Load(s)); }

    /// The provider's value of a handle that Winsock made; false when it is none.
    bool Context(SOCKET s, DWORD_PTR* context) const noexcept {
        const Slot* slot = SlotOf(s);
        if (slot == nullptr || !Decode(slot->owner.load()).layered) return false;
        *context = slot->context.load(std::memory_order_acquire);
        return true;
    }

    /// Makes `s` known, in place of a socket of that value that was closed behind Winsock's back. False when
    /// there is no memory or the value is no handle's.
    bool Add(SOCKET s, Owner owner, DWORD_PTR context) noexcept;

    /// Forgets `s` if `layered` says rightly who made it. The owner, for the one caller that took it out.
    Owner Remove(SOCKET s, bool layered) noexcept;

    /// Forgets every socket; calls `visit(socket, owner)` for each.
    template <class Visitor>
    void Clear(Visitor visit) noexcept {
        for (std::size_t c = 0; c < kChunks; ++c) {
            Chunk* chunk = chunks_[c].load(std::memory_order_acquire);
            if (chunk == nullptr) continue;
            for (std::size_t i = 0; i < kChunkSize; ++i) {
                const Owner owner = Decode(chunk->slots[i].owner.exchange(0));
                if (owner.provider != nullptr) visit(static_cast<SOCKET>((c * kChunkSize + i) * 4), owner);
            }
        }
    }

  private:
    static constexpr std::size_t kChunkSize = 1024;
    static constexpr std::size_t kChunks = 4096;  // handle values end at 2^24
    static constexpr std::uintptr_t kLayeredBit = 1;

    struct Slot {
        std::atomic<std::uintptr_t> owner{0};  // Provider*, with kLayeredBit; 0: no socket
        std::atomic<DWORD_PTR> context{0};     // stored before the owner
    };
    struct Chunk {
        Slot slots[kChunkSize];
    };

    static Owner Decode(std::uintptr_t word) noexcept {
        return {reinterpret_cast<Provider*>(word & ~kLayeredBit), (word & kLayeredBit) != 0};
    }
    static std::uintptr_t Encode(Owner owner) noexcept {
        return reinterpret_cast<std::uintptr_t>(owner.provider) | (owner.layered ? kLayeredBit : 0);
    }
    std::uintptr_t Load(SOCKET s) const noexcept {
        const Slot* slot = SlotOf(s);
        return slot == nullptr ? 0 : slot->owner.load();
    }
    const Slot* SlotOf(SOCKET s) const noexcept {
        if (s % 4 != 0 || s / 4 >= kChunks * kChunkSize) return nullptr;
        const Chunk* chunk = chunks_[s / 4 / kChunkSize].load(std::memory_order_acquire);
        return chunk == nullptr ? nullptr : &chunk->slots[s / 4 % kChunkSize];
    }

    std::atomic<Chunk*> chunks_[kChunks] = {};
};

/// The table of this process.
extern SocketTable Sockets;

}  // namespace winsock_host
