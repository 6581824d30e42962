// The chain at its edges, and against a flat vector of bytes under random operations.
#include "messages/message_buffer.h"

#include <gtest/gtest.h>

#include <functional>
#include <list>
#include <string>

#include "tests/messages/frame_tools.h"
#include "tests/support/seeded_random.h"

namespace {

std::string FailureOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "";
}

TEST(MessageBuffer, BytesThatJoinTheLastPieceAreReadFromTheOldEnd) {
    Bytes memory = {0, 1, 2, 3, 4};
    MessageBuffer buffer;
    buffer.AddContiguous({2, memory.data()});
    buffer.SetPosition(2);
    buffer.AddContiguous({3, memory.data() + 2});
    Bytes read(3);
    EXPECT_EQ(buffer.ReadAt(read.data(), 3), 3u);
    EXPECT_EQ(read, (Bytes{2, 3, 4}));
    EXPECT_TRUE(buffer.Move(3));
    EXPECT_EQ(buffer.GetRemaining(), 0u);

    // Also when the chain was cut before the position.
    buffer.SetPosition(4);
    ASSERT_TRUE(buffer.Truncate(2));
    buffer.AddContiguous({3, memory.data() + 2});
    EXPECT_EQ(buffer.GetPosition(), 4u);
    EXPECT_EQ(buffer.ReadAt(read.data(), 1), 1u);
    EXPECT_EQ(read[0], 4);
}

/// The chain and the oracle side by side.
class ChainAndOracle {
  public:
    explicit ChainAndOracle(SeededRandom& random) : random_(random) {}

    void Step() {
        switch (random_.Below(9)) {
            case 0:
            case 1:
                Add();
                break;
            case 2:
                Write();
                break;
            case 3:
                Read();
                break;
            case 4:
                Move();
                break;
            case 5:
                Seek();
                break;
            case 6:
                Sub();
                break;
            case 7:
                Truncate();
                break;
            default:
                if (random_.Below(20) == 0) Clear();
        }
        ASSERT_EQ(buffer_.GetTotalLength(), flat_.size());
        ASSERT_EQ(buffer_.GetPosition(), position_);
        PieceArray all;
        buffer_.GetAllBuffers(all.pieces, all.count, false);
        ASSERT_EQ(all.Flat(), flat_);
    }

  private:
    std::uint32_t Remaining() const {
        return position_ < flat_.size() ? static_cast<std::uint32_t>(flat_.size()) - position_ : 0;
    }

    Bytes RandomBytes(std::uint32_t length) {
        Bytes bytes(length);
        for (unsigned char& byte : bytes)
            byte = random_.Byte();
        return bytes;
    }

    void Add() {
        memory_.push_back(RandomBytes(random_.Below(9)));
        const BufferPiece piece{static_cast<std::uint32_t>(memory_.back().size()), memory_.back().data()};
        if (random_.Below(2) == 0 || piece.length < 2) {
            buffer_.AddBuffer(piece);
        } else {
            buffer_.AddContiguous({1, piece.data});
            buffer_.AddContiguous({piece.length - 1, piece.data + 1});
        }
        flat_.insert(flat_.end(), memory_.back().begin(), memory_.back().end());
    }

    void Write() {
        const Bytes source = RandomBytes(random_.Below(20));
        const bool fits = source.size() <= Remaining();
        ASSERT_EQ(buffer_.WriteAt(source.data(), static_cast<std::uint32_t>(source.size())),
                  fits ? source.size() : 0);
        if (fits && !source.empty()) std::memcpy(flat_.data() + position_, source.data(), source.size());
    }

    void Read() {
        Bytes read(random_.Below(20));
        const bool fits = read.size() <= Remaining();
        ASSERT_EQ(buffer_.ReadAt(read.data(), static_cast<std::uint32_t>(read.size())),
                  fits ? read.size() : 0);
        if (fits && !read.empty()) {
            ASSERT_TRUE(std::equal(read.begin(), read.end(), flat_.begin() + position_));
        }
    }

    void Move() {
        // The largest count would wrap a position that is added up before it is checked.
        const std::uint32_t count = random_.Below(10) == 0 ? 0xFFFFFFFF : random_.Below(20);
        const bool fits = count <= Remaining();
        ASSERT_EQ(buffer_.Move(count), fits);
        if (fits && position_ != MessageBuffer::kInvalidPosition) position_ += count;
    }

    void Seek() {
        const std::uint32_t target = random_.Below(static_cast<std::uint32_t>(flat_.size()) + 3);
        const bool failed = !FailureOf([&] { buffer_.SetPosition(target); }).empty();
        ASSERT_EQ(failed, target > flat_.size());
        if (!failed) position_ = target;
    }

    void Sub() {
        const std::uint32_t start = random_.Below(static_cast<std::uint32_t>(flat_.size()) + 3);
        const std::uint32_t length = random_.Below(30);
        const bool copy = random_.Below(2) == 0;
        PieceArray part;
        const bool failed =
            !FailureOf([&] { buffer_.GetSubBuffers(start, length, part.pieces, part.count, copy); }).empty();
        ASSERT_EQ(failed, length != 0 && std::uint64_t(start) + length > flat_.size());
        if (failed) {
            ASSERT_EQ(part.pieces, nullptr);
        } else {
            ASSERT_EQ(part.Flat(),
                      length == 0 ? Bytes() : Bytes(flat_.begin() + start, flat_.begin() + start + length));
        }
        for (std::uint32_t index = 0; copy && index < part.count; ++index)
            delete[] part.pieces[index].data;
    }

    void Truncate() {
        const std::uint32_t length = random_.Below(static_cast<std::uint32_t>(flat_.size()) + 3);
        ASSERT_EQ(buffer_.Truncate(length), length <= flat_.size());
        if (length <= flat_.size()) flat_.resize(length);
    }

    void Clear() {
        buffer_.Clear();
        flat_.clear();
        memory_.clear();
        position_ = MessageBuffer::kInvalidPosition;
    }

    SeededRandom& random_;
    std::list<Bytes> memory_;
    MessageBuffer buffer_;
    Bytes flat_;
    std::uint32_t position_ = MessageBuffer::kInvalidPosition;
};

TEST(MessageBuffer, BehavesAsAFlatVectorOfBytes) {
    SeededRandom random;
    SCOPED_TRACE("QX_SEED=" + std::to_string(random.Seed()));
    ChainAndOracle both(random);
    for (int step = 0; step < 20000 && !::testing::Test::HasFatalFailure(); ++step)
        both.Step();
}

}  // namespace
