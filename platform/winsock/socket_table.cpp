// The chunks of the table.
#include "platform/winsock/socket_table.h"

#include <new>

namespace winsock_host {

// Constant-initialised and trivially destroyed: usable from the first to the last instruction of the process.
SocketTable Sockets;

bool SocketTable::Add(SOCKET s, Owner owner, DWORD_PTR context) noexcept {
    if (s % 4 != 0 || s / 4 >= kChunks * kChunkSize) return false;
    std::atomic<Chunk*>& place = chunks_[s / 4 / kChunkSize];
    Chunk* chunk = place.load(std::memory_order_acquire);
    if (chunk == nullptr) {
        Chunk* fresh = new (std::nothrow) Chunk;
        if (fresh == nullptr) return false;
        if (place.compare_exchange_strong(chunk, fresh)) {
            chunk = fresh;
        } else {
            delete fresh;
        }
    }
    Slot& slot = chunk->slots[s / 4 % kChunkSize];
    slot.context.store(context, std::memory_order_release);
    slot.owner.store(Encode(owner));
    return true;
}

SocketTable::Owner SocketTable::Remove(SOCKET s, bool layered) noexcept {
    Slot* slot = const_cast<Slot*>(SlotOf(s));
    if (slot == nullptr) return {};
    std::uintptr_t word = slot->owner.load();
    while (word != 0 && Decode(word).layered == layered) {
        if (slot->owner.compare_exchange_weak(word, 0)) return Decode(word);
    }
    return {};
}

}  // namespace winsock_host
