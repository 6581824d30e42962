// The arena at its edges, and against a plain model under random operations.
#include "messages/buffer_arena.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>

#include "tests/support/seeded_random.h"

namespace {

TEST(BufferArena, TakesForeignMemoryAndIgnoresNull) {
    BufferArena arena;
    ASSERT_TRUE(arena.Init(100));
    arena.Free(nullptr);
    arena.Free(new unsigned char[64]);
    EXPECT_TRUE(arena.MarkAllocated(nullptr));
    arena.Destroy();
    arena.Free(new unsigned char[64]);
    EXPECT_NE(arena.Allocate(1), nullptr) << "usable again after it was emptied";

    BufferArena withoutInit;
    EXPECT_NE(withoutInit.Allocate(100), nullptr);
    EXPECT_NE(withoutInit.Allocate(0), withoutInit.Allocate(0))
        << "two buffers at one address would be freed as one";
}

/// What the arena must do, said with sets: which addresses live in a block, and where its free end begins.
struct ModelBlock {
    std::uintptr_t start;
    std::uintptr_t limit;
    std::uintptr_t nextFree;
    std::set<std::uintptr_t> live;
};

class ArenaAndModel {
  public:
    explicit ArenaAndModel(SeededRandom& random) : random_(random) { arena_.Init(kBlockSize); }

    void Step() {
        switch (random_.Below(5)) {
            case 0:
            case 1:
                Allocate();
                break;
            case 2:
            case 3:
                Free();
                break;
            default:
                Split();
        }
        const std::vector<ArenaBlock> blocks = arena_.BlocksForTest();
        if (model_.empty()) return;
        ASSERT_EQ(blocks.size(), model_.size());
        for (std::size_t index = 0; index < blocks.size(); ++index) {
            ASSERT_EQ(blocks[index].start, model_[index].start);
            ASSERT_EQ(blocks[index].limit, model_[index].limit);
            ASSERT_EQ(blocks[index].nextFree, model_[index].nextFree);
            ASSERT_TRUE(std::equal(blocks[index].liveStarts.begin(), blocks[index].liveStarts.end(),
                                   model_[index].live.begin(), model_[index].live.end()));
        }
    }

  private:
    static constexpr std::uint32_t kBlockSize = 512;

    struct Live {
        std::uint32_t size;
        unsigned char pattern;
    };

    void Allocate() {
        const std::uint32_t size = 1 + random_.Below(random_.Below(10) == 0 ? 700 : 100);
        unsigned char* address = arena_.Allocate(size);
        const auto number = reinterpret_cast<std::uintptr_t>(address);
        if (model_.empty()) ReadFirstBlock();
        for (ModelBlock& block : model_) {
            if (block.limit - block.nextFree < size) continue;
            ASSERT_EQ(number, block.nextFree) << "the first block with room gives its free end";
            return Enter(block, address, size);
        }
        model_.push_back({number, number + std::max(kBlockSize, size), number, {}});
        Enter(model_.back(), address, size);
    }

    void ReadFirstBlock() {
        const ArenaBlock block = arena_.BlocksForTest().front();
        model_.push_back({block.start, block.limit, block.start, {}});
    }

    void Enter(ModelBlock& block, unsigned char* address, std::uint32_t size) {
        block.live.insert(block.nextFree);
        block.nextFree += size;
        const unsigned char pattern = random_.Byte();
        std::memset(address, pattern, size);
        live_[address] = {size, pattern};
    }

    std::map<unsigned char*, Live>::iterator Pick() {
        return std::next(live_.begin(), random_.Below(static_cast<std::uint32_t>(live_.size())));
    }

    void Free() {
        if (live_.empty()) return;
        const auto picked = Pick();
        for (std::uint32_t index = 0; index < picked->second.size; ++index) {
            ASSERT_EQ(picked->first[index], picked->second.pattern) << "buffers overlap";
        }
        const auto number = reinterpret_cast<std::uintptr_t>(picked->first);
        arena_.Free(picked->first);
        live_.erase(picked);
        for (ModelBlock& block : model_) {
            if (number < block.start || number >= block.limit) continue;
            const bool highest = number == *block.live.rbegin();
            block.live.erase(number);
            if (block.live.empty()) {
                block.nextFree = block.start;
            } else if (highest) {
                block.nextFree = number;
            }
        }
    }

    void Split() {
        if (live_.empty()) return;
        const auto picked = Pick();
        if (picked->second.size < 2) return;
        const std::uint32_t at = 1 + random_.Below(picked->second.size - 1);
        unsigned char* second = picked->first + at;
        ASSERT_TRUE(arena_.MarkAllocated(second));
        ASSERT_TRUE(arena_.MarkAllocated(second)) << "twice is once";
        live_[second] = {picked->second.size - at, picked->second.pattern};
        picked->second.size = at;
        const auto number = reinterpret_cast<std::uintptr_t>(second);
        for (ModelBlock& block : model_) {
            if (number >= block.start && number < block.limit) block.live.insert(number);
            if (block.nextFree == block.limit) continue;  // where another block may begin
            ASSERT_TRUE(arena_.MarkAllocated(reinterpret_cast<unsigned char*>(block.nextFree)))
                << "beyond the used part: ignored";
        }
    }

    SeededRandom& random_;
    BufferArena arena_;
    std::vector<ModelBlock> model_;
    std::map<unsigned char*, Live> live_;
};

TEST(BufferArena, BehavesAsTheModelAndNeverOverlapsBuffers) {
    SeededRandom random;
    SCOPED_TRACE("QX_SEED=" + std::to_string(random.Seed()));
    ArenaAndModel both(random);
    for (int step = 0; step < 5000 && !::testing::Test::HasFatalFailure(); ++step)
        both.Step();
}

}  // namespace
