// Split connections under pressure: a side or an analyzer that stops reading, and strangers at the relay's
// port.
#include <atomic>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <thread>

#include "tests/relay/application_socket.h"
#include "tests/relay/split_fixture.h"
#include "tests/support/loopback_socket.h"

namespace {

constexpr std::size_t kAll = 20u << 20;
/// More than the buffers of all sockets on the way, and what the relay may have in hand, take.
constexpr std::size_t kMostUnread = 16u << 20;
constexpr std::size_t kPiece = 65536;

/// Closed until it is opened, for good.
class Gate {
  public:
    void Open() {
        const std::lock_guard lock(lock_);
        open_ = true;
        changed_.notify_all();
    }
    void Await() {
        std::unique_lock lock(lock_);
        changed_.wait(lock, [&] { return open_; });
    }

  private:
    std::mutex lock_;
    std::condition_variable changed_;
    bool open_ = false;
};

enum class Idler { kServer, kApplication, kAnalyzerOfServer, kAnalyzerOfApplication };

class SplitPressure : public SplitFixture {
  protected:
    /// `count` bytes have been sent in a stream whose bytes repeat with each piece.
    template <class Send>
    static bool SendMany(const Send& send, std::atomic<std::size_t>* sent) {
        std::string piece(kPiece, '\0');
        for (std::size_t i = 0; i < kPiece; ++i)
            piece[i] = static_cast<char>(i * 31 >> 8 ^ i);
        for (; *sent < kAll; *sent += kPiece) {
            if (!send(piece)) return false;
        }
        return true;
    }

    template <class Read>
    static std::string ReceiveMany(const Read& read) {
        for (std::size_t got = 0; got < kAll; got += kPiece) {
            const std::string piece = read();
            if (piece.size() != kPiece) return "ends after " + std::to_string(got + piece.size());
            for (std::size_t i = 0; i < kPiece; ++i) {
                if (piece[i] != static_cast<char>(i * 31 >> 8 ^ i))
                    return "differs at " + std::to_string(got + i);
            }
        }
        return "";
    }

    void RoundTrips(int count, SOCKET s, LoopbackStream& server) {
        for (int i = 0; i < count; ++i) {
            ASSERT_TRUE(SendAll(s, "ping"));
            ASSERT_EQ(ReadText(server, 4), "ping");
            ASSERT_TRUE(server.WriteAll("pong", 4));
            ASSERT_EQ(ReceiveText(s, 4), "pong");
        }
    }
};

TEST_F(SplitPressure, WhoeverStopsReadingStopsTheOtherSide) {
    const struct {
        const char* name;
        std::uint32_t flags;
        Idler idler;
    } rows[] = {
        {"server, forwarded", kForward, Idler::kServer},
        {"application, forwarded", kForward, Idler::kApplication},
        {"server, inspected", kInspect, Idler::kServer},
        {"application, inspected", kInspect, Idler::kApplication},
        {"analyzer, bytes for the server", kInspect, Idler::kAnalyzerOfServer},
        {"analyzer, bytes for the application", kInspect, Idler::kAnalyzerOfApplication},
    };
    StartWinsock();
    LoopbackStream bystandersServer;
    const SOCKET bystander = ConnectSplit(bystandersServer);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto gate = std::make_shared<Gate>();
        const bool analyzerIdles =
            row.idler == Idler::kAnalyzerOfServer || row.idler == Idler::kAnalyzerOfApplication;
        const ScriptedAnalyzer::Script others = Splitting(row.flags);
        analyzer_.SetScript([=](const SeenRequest& request, AnalyzerConnection& connection) {
            if (analyzerIdles && !request.data.empty()) gate->Await();
            others(request, connection);
        });
        LoopbackStream server;
        const SOCKET s = ConnectSplit(server);
        const bool toServer = row.idler == Idler::kServer || row.idler == Idler::kAnalyzerOfServer;
        std::atomic<std::size_t> sent{0};
        auto sender = std::async(std::launch::async, [&] {
            return toServer
                       ? SendMany([&](const std::string& piece) { return SendAll(s, piece); }, &sent)
                       : SendMany(
                             [&](const std::string& piece) { return server.WriteAll(piece.data(), kPiece); },
                             &sent);
        });
        while (sent < 2 * kPiece)
            std::this_thread::yield();
        RoundTrips(50, bystander, bystandersServer);
        EXPECT_LT(sent, kMostUnread);
        gate->Open();
        EXPECT_EQ(ReceiveMany([&] { return toServer ? ReadText(server, kPiece) : ReceiveText(s, kPiece); }),
                  "");
        EXPECT_TRUE(sender.get());
        EXPECT_EQ(closesocket(s), 0);
        EXPECT_EQ(ReadText(server, 1), "");
    }
    EXPECT_EQ(closesocket(bystander), 0);
}

/// Threads that connect to the relay's port, one connection after the other, and have no business there.
/// Those that reset give their port back at once: the next socket that gets it may be the application's.
class Strangers {
  public:
    explicit Strangers(std::uint16_t port) : port_(port) {
        for (const Conduct conduct : {Conduct::kWaits, Conduct::kTalks, Conduct::kResets, Conduct::kGoes})
            threads_.push_back(std::async(std::launch::async, [=] { Visit(conduct); }));
    }
    ~Strangers() {
        over_ = true;
        for (auto& thread : threads_)
            thread.wait();
    }
    Strangers(const Strangers&) = delete;
    Strangers& operator=(const Strangers&) = delete;

    int Count() const { return count_; }
    /// Those that got bytes.
    int Served() const { return served_; }

  private:
    enum class Conduct { kWaits, kTalks, kResets, kGoes };

    void Visit(Conduct conduct) {
        while (!over_) {
            const int descriptor = loopback_socket::Connect(port_);
            if (descriptor < 0) continue;
            LoopbackStream stream(descriptor);
            if (conduct == Conduct::kTalks) stream.WriteAll("question", 8);
            if (conduct == Conduct::kResets) stream.ResetPeer();
            char byte = 0;
            if (conduct <= Conduct::kTalks && stream.ReadSome(&byte, 1) != 0) ++served_;
            ++count_;
        }
    }

    const std::uint16_t port_;
    std::atomic<bool> over_{false};
    std::atomic<int> count_{0};
    std::atomic<int> served_{0};
    std::vector<std::future<void>> threads_;
};

TEST_F(SplitPressure, StrangersAtTheRelaysPortDisturbNobody) {
    StartWinsock();
    LoopbackStream bystandersServer;
    const SOCKET bystander = ConnectSplit(bystandersServer);
    Strangers strangers(loopback_socket::FindOwnListener(48300, 51300));
    for (int i = 0; i < 100 || strangers.Count() < 2000; ++i) {
        ApplicationSocket application(ApplicationSocket::kKinds[i % 4]);
        ASSERT_EQ(application.Connect(Ipv4(kPublic, kPort)), 0);
        LoopbackStream server;
        ASSERT_TRUE(origin_.Accept(server));
        ASSERT_TRUE(application.Send("ping", 4));
        ASSERT_EQ(ReadText(server, 4), "ping");
        ASSERT_NO_FATAL_FAILURE(RoundTrips(1, bystander, bystandersServer));
        application.Close();
        EXPECT_EQ(ReadText(server, 1), "");
    }
    EXPECT_EQ(strangers.Served(), 0);
    EXPECT_EQ(closesocket(bystander), 0);
}

}  // namespace
