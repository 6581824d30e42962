// Every allocation of a message's life fails in turn: the operation reports it, nothing leaks, nothing throws
// out of a function that promises not to, and the next use works.
#include <gtest/gtest.h>

#include <cstdlib>

#include "base/trace.h"
#include "messages/buffer_arena.h"
#include "messages/message_pool.h"
#include "tests/messages/frame_tools.h"
#include "tests/support/replaced_new.h"

namespace {

// -1: none fails. Live blocks count only what this thread makes while it watches.
thread_local int AllocationsUntilFailure = -1;
thread_local int LiveBlocks = 0;

}  // namespace

void* AllocateForNew(std::size_t size) noexcept {
    if (AllocationsUntilFailure == 0) return nullptr;
    if (AllocationsUntilFailure > 0) --AllocationsUntilFailure;
    void* memory = std::malloc(size != 0 ? size : 1);
    if (memory != nullptr) ++LiveBlocks;
    return memory;
}

void ReleaseFromDelete(void* memory) noexcept {
    if (memory != nullptr) --LiveBlocks;
    std::free(memory);
}

namespace {

/// Takes a request, carries data in it, writes it, reads it back, copies and returns it. True when all went
/// well.
bool LiveOnce(Bytes& data, const std::string& user) {
    PooledRequest request = TakeRequest();
    PooledRequest second = TakeRequest();
    PooledResponse response = TakeResponse();
    if (!request || !second || !response) return false;
    const BufferPiece carried[] = {{100, data.data()}, {900, data.data() + 100}};
    bool good = request->SetDataBuffers(carried, 2, 0, false);
    request->UserName.swap(const_cast<std::string&>(user));
    good = request->Serialize() && good;
    good = request->Deserialize() && good;
    request->UserName.swap(const_cast<std::string&>(user));

    BufferPiece* copy = nullptr;
    std::uint32_t count = 0;
    const bool copied = request->GetDataBuffers(copy, count, true);
    if (copied) {
        // The copies now belong to the second message.
        const bool owned = second->SetBuffers(copy, count, false);
        for (std::uint32_t index = 0; index < count; ++index)
            delete[] copy[index].data;
        delete[] copy;
        second->ClearBuffers();
        good = owned && good;
    }
    unsigned char* memory = ArenaAlloc(64);
    if (memory == nullptr) return false;
    if (!response->AddDataBuffer({64, memory}, true)) {
        ArenaFree(memory);
        return false;
    }
    return good && copied;
}

TEST(AllocationFailure, EveryAllocationOfAMessagesLifeMayFail) {
    Bytes data(1000, 'd');
    std::string user(100, 'u');
    int failures = 0;
    // The stand-in's debug output is made at its first use, which must not be while memory is out.
    Trace("Allocations will fail.");
    for (int allowed = 0;; ++allowed) {
        const int before = LiveBlocks;
        bool good = false;
        {
            AllocationsUntilFailure = allowed;
            TheBufferArena().Init(512);
            good = LiveOnce(data, user);
            AllocationsUntilFailure = -1;
        }
        EXPECT_TRUE(LiveOnce(data, user)) << "memory is back, after failure " << allowed;
        DestroyMessagePool();
        for (const ArenaBlock& block : TheBufferArena().BlocksForTest())
            EXPECT_TRUE(block.liveStarts.empty());
        DestroyBufferArena();
        // What Trace or a thrown exception keeps is not counted: both release before they return.
        EXPECT_EQ(LiveBlocks, before) << "leaked when allocation " << allowed << " failed";
        if (good) break;
        ++failures;
        ASSERT_LT(failures, 1000);
    }
    EXPECT_GT(failures, 10);
    EXPECT_EQ(user, std::string(100, 'u'));
}

}  // namespace
