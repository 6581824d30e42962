// Many split connections at once, of every kind of socket, through an analyzer that passes, changes, cuts up
// and delays: every byte arrives once, in its place, on its own connection.
#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <random>
#include <thread>

#include "tests/relay/application_socket.h"
#include "tests/relay/split_fixture.h"
#include "tests/support/seeded_random.h"

namespace {

constexpr std::uint32_t kClientDataReport = 9;
constexpr std::uint32_t kServerDataReport = 10;
constexpr std::uint32_t kToClient = 3;
constexpr std::uint32_t kToServer = 4;

enum class Ending {
    kAfterAll,  ///< its end has sent and received everything
    kAbrupt,    ///< it has sent everything, and reads nothing
};

/// What one connection carries. Its first four bytes toward the server are its number.
struct Plan {
    std::uint32_t number;
    std::uint32_t up;
    std::uint32_t down;
    ApplicationSocket::Kind kind;
    bool clientCloses;
    Ending ending;
};

constexpr std::uint32_t kNumberBytes = 4;

unsigned char ByteAt(std::uint32_t number, bool up, std::uint32_t position) {
    if (up && position < kNumberBytes) return static_cast<unsigned char>(number >> (8 * position));
    std::uint32_t mixed = (number * 2 + (up ? 1 : 0)) * 2654435761u ^ position * 2246822519u;
    mixed = (mixed ^ (mixed >> 15)) * 3266489917u;
    return static_cast<unsigned char>(mixed >> 24);
}

/// One direction of a connection: makes its bytes at one end and looks at them at the other.
class Bytes {
  public:
    Bytes(std::uint32_t number, bool up, std::uint32_t size, unsigned char mask)
        : number_(number), up_(up), size_(size), mask_(mask) {}

    template <class Send>
    bool Write(const Send& send) const {
        std::minstd_rand random(number_ + 1);
        std::vector<char> piece;
        for (std::uint32_t at = 0; at < size_; at += static_cast<std::uint32_t>(piece.size())) {
            piece.resize(std::min<std::size_t>(size_ - at, 1 + random() % 20000));
            for (std::size_t i = 0; i < piece.size(); ++i)
                piece[i] = static_cast<char>(ByteAt(number_, up_, at + static_cast<std::uint32_t>(i)));
            if (!send(piece.data(), piece.size())) return false;
        }
        return true;
    }

    /// Reads up to `most` bytes. What is wrong with them, or empty.
    template <class Receive>
    std::string Read(const Receive& receive, std::uint32_t most) {
        std::vector<char> piece(16384);
        while (read_ < most) {
            const std::size_t count =
                receive(piece.data(), std::min<std::size_t>(piece.size(), most - read_));
            if (count == 0) return "";
            for (std::size_t i = 0; i < count; ++i, ++read_) {
                const auto byte = static_cast<unsigned char>(piece[i]) ^ mask_;
                if (read_ >= size_ || byte != ByteAt(number_, up_, read_))
                    return Describe("has a wrong byte");
            }
        }
        return "";
    }

    std::string Lack() const { return read_ == size_ ? "" : Describe("ends"); }

    void Seen(std::uint32_t count) { read_ += count; }

  private:
    std::string Describe(const char* what) const {
        return "connection " + std::to_string(number_) + (up_ ? " up " : " down ") + what + " at " +
               std::to_string(read_) + " of " + std::to_string(size_) + "; ";
    }

    std::uint32_t number_;
    bool up_;
    std::uint32_t size_;
    unsigned char mask_;
    std::uint32_t read_ = 0;
};

/// What one end does: sends and receives at once, then closes first, or waits for the end.
template <class Send, class Receive, class Close>
std::string UseEnd(const Plan& plan, bool closes, const Bytes& out, Bytes& in, std::uint32_t inSize,
                   const Send& send, const Receive& receive, const Close& close) {
    auto writer = std::async(std::launch::async, [&] { return out.Write(send); });
    std::string wrong;
    const bool abrupt = plan.ending == Ending::kAbrupt;
    if (!closes) {
        // One byte too many would show.
        wrong = in.Read(receive, inSize + 1);
    } else if (!abrupt) {
        wrong = in.Read(receive, inSize);
    }
    const bool sent = writer.get();
    if (!abrupt) wrong += in.Lack() + (sent ? "" : "connection can't send; ");
    if (closes && abrupt) return close(), wrong;
    close();
    return wrong;
}

/// An analyzer that sends the data on with every byte changed by `mask`; cut up, with pauses, if so wanted.
ScriptedAnalyzer::Script Meddling(const ScriptedAnalyzer::Script& others, unsigned char mask, bool cutUp) {
    return [=](const SeenRequest& request, AnalyzerConnection& connection) {
        const bool up = request.operation == kClientDataReport;
        if (!up && request.operation != kServerDataReport) return others(request, connection);
        std::minstd_rand random(request.messageId + 1);
        std::vector<std::uint8_t> frames;
        for (std::size_t at = 0; at < request.data.size();) {
            const std::size_t count =
                cutUp ? std::min<std::size_t>(request.data.size() - at, 1 + random() % 3000)
                      : request.data.size();
            ScriptedAnswer answer;
            answer.action = up ? kToServer : kToClient;
            answer.requestId = request.messageId;
            for (std::size_t i = 0; i < count; ++i)
                answer.data.push_back(static_cast<std::uint8_t>(request.data[at + i] ^ mask));
            const std::vector<std::uint8_t> frame = AnswerFrame(answer);
            frames.insert(frames.end(), frame.begin(), frame.end());
            at += count;
            if (cutUp && random() % 8 == 0)
                std::this_thread::sleep_for(std::chrono::microseconds(random() % 500));
            if (cutUp && random() % 2 == 0) continue;
            connection.Send(frames);
            frames.clear();
        }
        connection.Send(frames);
    };
}

class SplitIntegrity : public SplitFixture {
  protected:
    std::vector<Plan> MakePlans(SeededRandom& random, std::size_t count) {
        const std::uint32_t sizes[] = {1, 2, 64, 4095, 4096, 4097, 20000, 120000};
        std::vector<Plan> plans;
        for (std::size_t i = 0; i < count; ++i) {
            Plan plan = {};
            plan.number = ++lastNumber_;
            plan.up = kNumberBytes + random.Below(sizes[random.Below(8)]);
            plan.down = random.Below(sizes[random.Below(8)]);
            plan.kind = ApplicationSocket::kKinds[random.Below(4)];
            plan.clientCloses = random.Below(2) == 0;
            plan.ending = random.Below(4) == 0 ? Ending::kAbrupt : Ending::kAfterAll;
            plans.push_back(plan);
        }
        return plans;
    }

    /// The server's end of the connection that says its number.
    static std::string Serve(LoopbackStream stream, const std::vector<Plan>& plans, unsigned char mask) {
        unsigned char number[kNumberBytes];
        if (!stream.ReadExactly(number, sizeof(number))) return "a connection without its number; ";
        const std::uint32_t index = (number[0] ^ mask) | (number[1] ^ mask) << 8;
        const auto plan =
            std::find_if(plans.begin(), plans.end(), [&](const Plan& one) { return one.number == index; });
        if (plan == plans.end()) return "a connection with number " + std::to_string(index) + "; ";
        const Bytes down(index, false, plan->down, mask);
        Bytes up(index, true, plan->up, mask);
        up.Seen(kNumberBytes);
        return UseEnd(
            *plan, !plan->clientCloses, down, up, plan->up,
            [&](const char* bytes, std::size_t size) { return stream.WriteAll(bytes, size); },
            [&](char* bytes, std::size_t size) { return stream.ReadSome(bytes, size); },
            [&] { stream = LoopbackStream(); });
    }

    std::string Use(const Plan& plan, unsigned char mask) {
        ApplicationSocket application(plan.kind);
        const int error = application.Connect(Ipv4(kPublic, kPort));
        if (error != 0) {
            // The server would wait for it for ever.
            origin_.Interrupt();
            return "connect fails with " + std::to_string(error) + "; ";
        }
        const Bytes up(plan.number, true, plan.up, mask);
        Bytes down(plan.number, false, plan.down, mask);
        return UseEnd(
            plan, plan.clientCloses, up, down, plan.down,
            [&](const char* bytes, std::size_t size) { return application.Send(bytes, size); },
            [&](char* bytes, std::size_t size) { return application.Receive(bytes, size); },
            [&] { application.Close(); });
    }

    /// Carries the plans out, several at once. What was wrong.
    std::string CarryOut(const std::vector<Plan>& plans, unsigned char mask) {
        auto server = std::async(std::launch::async, [&] {
            std::vector<std::future<std::string>> ends;
            for (std::size_t i = 0; i < plans.size(); ++i) {
                LoopbackStream stream;
                if (!origin_.Accept(stream)) break;
                ends.push_back(
                    std::async(std::launch::async, Serve, std::move(stream), std::cref(plans), mask));
            }
            std::string wrong;
            for (auto& end : ends)
                wrong += end.get();
            return wrong;
        });
        std::atomic<std::size_t> next{0};
        std::vector<std::future<std::string>> users;
        for (int i = 0; i < 6; ++i) {
            users.push_back(std::async(std::launch::async, [&] {
                std::string wrong;
                for (std::size_t at = next++; at < plans.size(); at = next++)
                    wrong += Use(plans[at], mask);
                return wrong;
            }));
        }
        std::string wrong;
        for (auto& user : users)
            wrong += user.get();
        return wrong + server.get();
    }

    std::uint32_t lastNumber_ = 0;
};

TEST_F(SplitIntegrity, EveryByteArrivesOnceInItsPlace) {
    const struct {
        const char* name;
        std::uint32_t flags;
        unsigned char mask;
        bool cutUp;
    } rows[] = {
        {"forwarded", kForward, 0, false},
        {"inspected", kInspect, 0, false},
        {"changed, in pieces and with pauses", kInspect, 0x5a, true},
    };
    SeededRandom random;
    SCOPED_TRACE("QX_SEED=" + std::to_string(random.Seed()));
    StartWinsock();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        analyzer_.SetScript(Meddling(Splitting(row.flags), row.mask, row.cutUp));
        EXPECT_EQ(CarryOut(MakePlans(random, 40), row.mask), "");
    }
}

}  // namespace
