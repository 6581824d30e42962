// The spy socket above a lower provider that says what a test wants: a socket that the system connected to
// itself, for want of an analyzer behind a port that sockets are given, is no way to the analyzer.
#include "tests/support/scripted_layer_fixture.h"

namespace {

using Op = ProviderOperation;

constexpr std::uint16_t kAnalyzerPort = 49200;

class SpySocket : public ScriptedLayerFixture {
  protected:
    static std::string Bytes(const sockaddr_in& address) {
        return std::string(reinterpret_cast<const char*>(&address), sizeof(address));
    }

    /// The calls of an operation on one lower socket, with this option or other value.
    std::size_t Count(Op operation, SOCKET lowerSocket, DWORD value) {
        std::size_t count = 0;
        for (const ProviderCallRecord& call : Provider().Calls(operation))
            count += call.socket == lowerSocket && call.value == value ? 1 : 0;
        return count;
    }
};

TEST_F(SpySocket, ConnectedToItselfIsNoAnalyzerAndFreesThePort) {
    const struct {
        const char* ownAddress;
        std::uint16_t ownPort;
        int nameError;
        bool itself;
    } rows[] = {
        {"127.0.0.1", kAnalyzerPort, 0, true},
        {"127.0.0.2", kAnalyzerPort, 0, false},
        {"127.0.0.1", kAnalyzerPort + 1, 0, false},
        {"127.0.0.1", kAnalyzerPort, WSAENETDOWN, false},  // then nobody knows
    };
    SetAnalyzerPort(kAnalyzerPort);
    for (const auto& row : rows) {
        for (const DWORD stop : {0u, 1u}) {
            SCOPED_TRACE(std::string(row.ownAddress) + ":" + std::to_string(row.ownPort) + ", policy " +
                         std::to_string(stop));
            Provider().Reset();
            SetRegistryValue("StopActivityOnFailConnect", stop);
            StartAbove(BASE_PROTOCOL);
            ProviderReply name;
            name.error = row.nameError;
            name.address = Bytes(Ipv4(row.ownAddress, row.ownPort));
            Provider().ReplyAlways(Op::kGetSockName, name);

            const SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
            const sockaddr_in destination = Ipv4("203.0.113.10", 80);
            const int result =
                connect(s, reinterpret_cast<const sockaddr*>(&destination), sizeof(destination));
            EXPECT_EQ(result == 0 ? 0 : WSAGetLastError(), stop == 0 ? 0 : WSAECONNREFUSED);
            const auto connects = Provider().Calls(Op::kConnect);
            ASSERT_EQ(connects.size(), stop == 0 ? 2u : 1u);
            EXPECT_EQ(connects[0].address, Bytes(Ipv4("127.0.0.1", kAnalyzerPort)));
            const SOCKET spy = connects[0].socket;
            EXPECT_EQ(Count(Op::kSend, spy, 0), row.itself ? 0u : 1u) << "it would answer itself";
            EXPECT_EQ(Count(Op::kSetSockOpt, spy, SO_LINGER), row.itself ? 1u : 0u);
            EXPECT_EQ(Count(Op::kCloseSocket, spy, 0), 1u);
            std::vector<std::string> modes;
            for (const ProviderCallRecord& call : Provider().Calls(Op::kIoctl)) {
                if (call.socket == spy && call.value == static_cast<DWORD>(FIONBIO))
                    modes.push_back(call.data);
            }
            ASSERT_EQ(modes.size(), row.itself ? 1u : 2u);
            EXPECT_NE(modes.front(), std::string(sizeof(u_long), 0)) << "no connect without a limit";
            if (!row.itself) {
                EXPECT_EQ(modes.back(), std::string(sizeof(u_long), 0)) << "its answers are waited for";
            }
            for (const ProviderCallRecord& call : Provider().Calls(Op::kSetSockOpt)) {
                const LINGER hard = {1, 0};
                if (call.value != SO_LINGER) continue;
                EXPECT_EQ(call.data, std::string(reinterpret_cast<const char*>(&hard), sizeof(hard)));
            }
            EXPECT_EQ(closesocket(s), 0);
            StopWinsock();
        }
    }
}

}  // namespace
