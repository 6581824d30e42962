// Many threads make, connect, use and close the same few sockets at random, while the analyzer gives every
// kind of answer and some that are none: each call ends with success or an error that Winsock documents, and
// nothing stays behind.
#include <winsock2.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/testing/clock.h"
#include "tests/support/connect_fixture.h"

namespace {

/// Accepts and drops what arrives, until destroyed.
class Drain {
  public:
    explicit Drain(LoopbackListener& listener)
        : listener_(listener), thread_([this] {
              LoopbackStream stream;
              while (listener_.Accept(stream)) {
              }
          }) {}
    ~Drain() {
        listener_.Interrupt();
        thread_.join();
    }
    Drain(const Drain&) = delete;
    Drain& operator=(const Drain&) = delete;

  private:
    LoopbackListener& listener_;
    std::thread thread_;
};

/// What a thread may be told of a socket that others close, connect and use at the same time.
bool IsExpected(int error) {
    static const std::set<int> expected = {WSAENOTSOCK,     WSAEINTR,        WSAECONNREFUSED, WSAEISCONN,
                                           WSAENOTCONN,     WSAECONNABORTED, WSAECONNRESET,   WSAEALREADY,
                                           WSAESHUTDOWN,    WSAEINVAL,       WSAEINPROGRESS,  WSAEWOULDBLOCK,
                                           WSAEADDRNOTAVAIL};
    return expected.count(error) > 0;
}

class SocketTable {
  public:
    void Act(std::mt19937& random) {
        std::atomic<SOCKET>& slot = slots_[random() % slots_.size()];
        switch (random() % 8) {
            case 0:
            case 1:
                Close(slot.exchange(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)));
                break;
            case 2:
                Close(slot.exchange(INVALID_SOCKET));
                break;
            case 3:
            case 4:
            case 5:
                Connect(slot, random() % 2 == 0 ? "203.0.113.10" : "198.51.100.20");
                break;
            case 6:
                Check("send", send(slot, "x", 1, 0) >= 0);
                break;
            default:
                Ask(slot);
        }
    }

    void CloseAll() {
        for (std::atomic<SOCKET>& slot : slots_)
            Close(slot.exchange(INVALID_SOCKET));
    }

    std::set<std::string> Unexpected() const { return unexpected_; }

  private:
    void Check(const char* call, bool succeeded) {
        if (succeeded) return;
        const int error = WSAGetLastError();
        if (IsExpected(error)) return;
        const std::lock_guard<std::mutex> lock(mutex_);
        unexpected_.insert(std::string(call) + " " + std::to_string(error));
    }

    void Close(SOCKET s) {
        if (s != INVALID_SOCKET) Check("closesocket", closesocket(s) == 0);
    }

    void Connect(SOCKET s, const char* destination) {
        const sockaddr_in name = Ipv4(destination, 80);
        Check("connect", connect(s, reinterpret_cast<const sockaddr*>(&name), sizeof(name)) == 0);
    }

    void Ask(SOCKET s) {
        sockaddr_in name{};
        int length = sizeof(name);
        Check("getpeername", getpeername(s, reinterpret_cast<sockaddr*>(&name), &length) == 0);
        fd_set set;
        FD_ZERO(&set);
        FD_SET(s, &set);
        timeval now = {0, 0};
        Check("select", select(0, &set, nullptr, nullptr, &now) >= 0);
    }

    std::array<std::atomic<SOCKET>, 6> slots_ = {INVALID_SOCKET, INVALID_SOCKET, INVALID_SOCKET,
                                                 INVALID_SOCKET, INVALID_SOCKET, INVALID_SOCKET};
    std::mutex mutex_;
    std::set<std::string> unexpected_;  // under mutex_, until the threads have ended
};

class ConnectTraffic : public ConnectFixture {
  protected:
    /// Allows, blocks, redirects, or ends the channel without an answer, in orderly fashion or not.
    void AnswerAtRandom() {
        const std::string other = "127.0.0.1:" + std::to_string(otherOrigin_.Port());
        analyzer_.SetScript([other](const SeenRequest& request, AnalyzerConnection& connection) {
            ScriptedAnswer answer;
            switch (request.messageId % 7) {
                case 0:
                    connection.Close();
                    return;
                case 1:
                    connection.Reset();
                    return;
                case 2:
                    answer.action = 2;
                    answer.redirectTo = other;
                    break;
                case 3:
                    answer.action = 1;
                    break;
                case 4:
                    connection.Send({0xff, 0xff, 0xff, 0x7f, 1, 2, 3, 4});
                    return;
                default:
                    break;
            }
            connection.Answer(request, answer);
        });
    }
};

}  // namespace

TEST_F(ConnectTraffic, LeavesNothingBehind) {
    const char* const given = std::getenv("QX_TEST_SEED");
    const unsigned seed = given != nullptr ? static_cast<unsigned>(std::atoi(given)) : std::random_device()();
    std::printf("QX_TEST_SEED=%u\n", seed);
    AnswerAtRandom();
    StartWinsock();
    SocketTable table;
    {
        const Drain drain(origin_), otherDrain(otherOrigin_);
        const platform::ScopedClockRate fast(1000);
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < 8; ++i) {
            threads.emplace_back([&table, seed, i] {
                std::mt19937 random(seed + i);
                for (int round = 0; round < 150; ++round)
                    table.Act(random);
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        table.CloseAll();
    }
    EXPECT_EQ(table.Unexpected(), std::set<std::string>());
    EXPECT_GT(analyzer_.Requests().size(), 20u);
    // Before the clean-up, which ends what is left of the process's sockets.
    EXPECT_TRUE(analyzer_.WaitForEnded(analyzer_.Accepted()));
}
