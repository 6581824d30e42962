// What the analyzer is told of datagrams and of binds, and what its answers do to them.
#include <gtest/gtest.h>

#include "tests/relay/traffic_fixture.h"

namespace {

constexpr std::uint32_t kBind = 11;

class DatagramReports : public TrafficFixture {
  protected:
    void SetUp() override {
        TrafficFixture::SetUp();
        Answer({});
        StartWinsock();
        peer_ = DatagramSocket();
        const sockaddr_in any = Ipv4("127.0.0.1", 0);
        ASSERT_EQ(bind(peer_, reinterpret_cast<const sockaddr*>(&any), sizeof(any)), 0);
        sockaddr_in name{};
        int length = sizeof(name);
        ASSERT_EQ(getsockname(peer_, reinterpret_cast<sockaddr*>(&name), &length), 0);
        RouteTo("203.0.113.10:53", ntohs(name.sin_port));
        ApplyMachine();
        // The peer is a socket of this process as well: from here on it is nobody's matter.
        Say(peer_, "x", Ipv4("127.0.0.1", ntohs(name.sin_port)));
        EXPECT_EQ(Hear(peer_, nullptr), "x");
        first_ = analyzer_.Requests().size();
    }
    void TearDown() override {
        EXPECT_EQ(closesocket(peer_), 0);
        TrafficFixture::TearDown();
    }

    static SOCKET DatagramSocket() {
        const SOCKET s = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
        EXPECT_NE(s, INVALID_SOCKET);
        return s;
    }

    /// The error, or 0.
    static int Say(SOCKET s, const std::string& text, const sockaddr_in& to) {
        const int sent = sendto(s, text.data(), static_cast<int>(text.size()), 0,
                                reinterpret_cast<const sockaddr*>(&to), sizeof(to));
        return sent == static_cast<int>(text.size()) ? 0 : WSAGetLastError();
    }

    static std::string Hear(SOCKET s, sockaddr_in* from) {
        char text[256];
        sockaddr_in name{};
        int length = sizeof(name);
        const int received = recvfrom(s, text, sizeof(text), 0, reinterpret_cast<sockaddr*>(&name), &length);
        if (from != nullptr) *from = name;
        return received < 0 ? "[" + std::to_string(WSAGetLastError()) + "]"
                            : std::string(text, static_cast<std::size_t>(received));
    }

    SOCKET peer_ = INVALID_SOCKET;
    std::size_t first_ = 0;
    const sockaddr_in public_ = Ipv4("203.0.113.10", 53);
};

TEST_F(DatagramReports, TheFirstOfEachDirectionAndAllThatAreCounted) {
    const std::string ssh = "SSH-2.0-x\r\n";
    const std::string get = "GET / HTTP/1.1\r\n\r\n";
    const struct {
        const char* name;
        std::uint32_t flags;
        std::vector<std::string> steps;
        std::vector<std::string> told;
    } rows[] = {
        {"given up at once", 0, {"s:zz", "s:zz", "r:zz"}, {"4 p80000000 s0 r0", "2 p80000000 s4 r2"}},
        {"the other direction is tried all the same",
         0,
         {"s:zz", "r:" + ssh, "r:" + ssh},
         {"4 p80000000 s0 r0", "6 p800 s2 r11 [" + ssh + "]", "2 p800 s2 r22"}},
        {"what is sent is recognised, and not told", 0, {"s:" + get, "r:zz"}, {"4 p1 s0 r0", "2 p1 s18 r2"}},
        {"counted",
         kCount,
         {"s:zz", "s:z", "r:zz", "r:zzz"},
         {"4 p80000000 s0 r0", "3 p80000000 s2 r0", "5 p80000000 s1 r2", "5 p80000000 s0 r3",
          "2 p80000000 s0 r0"}},
    };
    std::size_t closes = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        analyzer_.SetScript([&row](const SeenRequest& request, AnalyzerConnection& connection) {
            ScriptedAnswer answer;
            answer.flags = row.flags;
            connection.Answer(request, answer);
        });
        const std::size_t before = analyzer_.Requests().size();
        const SOCKET s = DatagramSocket();
        sockaddr_in back{};
        for (const std::string& step : row.steps) {
            const std::string text = step.substr(2);
            if (step[0] == 's') {
                EXPECT_EQ(Say(s, text, public_), 0);
                EXPECT_EQ(Hear(peer_, &back), text);
            } else {
                EXPECT_EQ(Say(peer_, text, back), 0);
                EXPECT_EQ(Hear(s, nullptr), text);
            }
        }
        EXPECT_EQ(closesocket(s), 0);
        EXPECT_TRUE(WaitForCloses(++closes));
        EXPECT_EQ(Told(before), row.told);
        EXPECT_EQ(analyzer_.Requests().back().socketType, static_cast<std::uint32_t>(SOCK_DGRAM));
        EXPECT_EQ(analyzer_.Requests().back().Destination(), "203.0.113.10:53");
    }
}

TEST_F(DatagramReports, WithoutAnAddressTheyGoWhereTheSocketIsConnectedTo) {
    const SOCKET s = DatagramSocket();
    EXPECT_EQ(Connect(s, public_), 0);
    EXPECT_EQ(send(s, "zz", 2, 0), 2);
    EXPECT_EQ(Hear(peer_, nullptr), "zz");
    EXPECT_EQ(Told(first_), std::vector<std::string>{"4 p80000000 s0 r0"});
    EXPECT_EQ(analyzer_.Requests().back().Destination(), "203.0.113.10:53");
    EXPECT_EQ(closesocket(s), 0);
}

TEST_F(DatagramReports, RefusedOnesDontLeaveAndLocalOnesAreNobodysMatter) {
    Answer({0, {4}});
    const SOCKET s = DatagramSocket();
    EXPECT_EQ(Say(s, "refused", public_), WSAECONNABORTED);
    EXPECT_EQ(Say(s, "too", public_), WSAECONNABORTED) << "as long as nobody is asked anew";
    EXPECT_EQ(closesocket(s), 0);
    EXPECT_TRUE(WaitForCloses(1));

    const std::size_t before = analyzer_.Requests().size();
    const SOCKET local = DatagramSocket();
    sockaddr_in name{};
    int length = sizeof(name);
    EXPECT_EQ(getsockname(peer_, reinterpret_cast<sockaddr*>(&name), &length), 0);
    EXPECT_EQ(Say(local, "local", name), 0);
    EXPECT_EQ(Hear(peer_, nullptr), "local") << "nothing was before it";
    EXPECT_EQ(closesocket(local), 0);
    EXPECT_EQ(analyzer_.Requests().size(), before);
}

TEST_F(DatagramReports, ABindIsAskedAboutAndMayBeRefused) {
    const struct {
        std::uint32_t refused;
        int error;
    } rows[] = {{0, 0}, {kBind, WSAECONNABORTED}};
    std::size_t closes = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.refused);
        Answer({kCount, {row.refused}});
        const SOCKET s = StreamSocket();
        const sockaddr_in any = Ipv4("127.0.0.1", 0);
        const int result = bind(s, reinterpret_cast<const sockaddr*>(&any), sizeof(any));
        EXPECT_EQ(result == 0 ? 0 : WSAGetLastError(), row.error);
        const SeenRequest request = analyzer_.Requests().back();
        EXPECT_EQ(request.operation, kBind);
        EXPECT_EQ(request.localAddress[4], 127) << "the name, in the order of the wire";
        sockaddr_in name{};
        int length = sizeof(name);
        const bool isBound = getsockname(s, reinterpret_cast<sockaddr*>(&name), &length) == 0;
        EXPECT_EQ(isBound && name.sin_port != 0, row.error == 0);
        EXPECT_EQ(closesocket(s), 0);
        EXPECT_TRUE(WaitForCloses(++closes));
    }
}

TEST_F(DatagramReports, ABindGoesAheadWithoutAnAnalyzer) {
    SetRegistryValue("StopActivityOnFailConnect", 1);
    analyzer_.SetScript([](const SeenRequest&, AnalyzerConnection& connection) { connection.Close(); });
    const SOCKET s = StreamSocket();
    const sockaddr_in any = Ipv4("127.0.0.1", 0);
    EXPECT_EQ(bind(s, reinterpret_cast<const sockaddr*>(&any), sizeof(any)), 0);
    EXPECT_EQ(closesocket(s), 0);
}

}  // namespace
