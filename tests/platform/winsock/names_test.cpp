// Byte order, numeric addresses and the small resolver.
#include <winsock2.h>

#include <ws2tcpip.h>

#include <cstring>
#include <string>
#include <thread>

#include "tests/platform/winsock/host_fixture.h"

namespace {

TEST(NamesTest, LooseIpv4Texts) {
    const struct {
        const char* text;
        ULONG host;  // host order
    } cases[] = {
        {"127.0.0.1", 0x7F000001},   {"0", 0},
        {"1.2", 0x01000002},         {"1.2.772", 0x01020304},
        {"0x7f.1", 0x7F000001},      {"010.0.0.1", 0x08000001},
        {"16909060", 0x01020304},    {"255.255.255.254", 0xFFFFFFFE},
        {"256.0.0.1", INADDR_NONE},  {"1.2.3.4.5", INADDR_NONE},
        {"1.2.3.", INADDR_NONE},     {"", INADDR_NONE},
        {"host", INADDR_NONE},       {"1.2.65536", INADDR_NONE},
        {"4294967296", INADDR_NONE},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ntohl(inet_addr(c.text)), c.host) << c.text;
}

TEST(NamesTest, Ipv6TextsAndTheirShortestForm) {
    const struct {
        const char* text;
        const char* shortest;  // null: refused
    } cases[] = {
        {"::", "::"},
        {"::1", "::1"},
        {"1::", "1::"},
        {"2001:0DB8:0:0:8:800:200C:417A", "2001:db8::8:800:200c:417a"},
        {"1:0:0:2:0:0:0:3", "1:0:0:2::3"},
        {"1:0:2:0:3:0:4:0", "1:0:2:0:3:0:4:0"},
        {"0:0:1:0:0:1:0:0", "::1:0:0:1:0:0"},
        {"::ffff:1.2.3.4", "::ffff:1.2.3.4"},
        {"::ffff:102:304", "::ffff:1.2.3.4"},
        {"::1.2.3.4", "::1.2.3.4"},
        {"::1234", "::1234"},
        {"::fffe:102:304", "::fffe:102:304"},
        {"::ffff:0:102:304", "::ffff:0:1.2.3.4"},
        {"fe80::5efe:102:304", "fe80::5efe:1.2.3.4"},
        {"1:2:3:4:200:5efe:102:304", "1:2:3:4:200:5efe:1.2.3.4"},
        {"1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:0"},
        {"1:2:3:4:5:6:1.2.3.4", "1:2:3:4:5:6:102:304"},
        {"1:2:3:4:5:6:7", nullptr},
        {"1:2:3:4:5:6:7:8:9", nullptr},
        {"1::2::3", nullptr},
        {"12345::", nullptr},
        {":1::2", nullptr},
        {"1:", nullptr},
        {"::1:", nullptr},
        {":::1", nullptr},
        {"1:::2", nullptr},
        {"1.2.3.4::", nullptr},
        {"::1.2.3.256", nullptr},
        {"g::", nullptr},
        {"", nullptr},
    };
    for (const auto& c : cases) {
        in6_addr address{};
        ASSERT_EQ(inet_pton(AF_INET6, c.text, &address), c.shortest != nullptr ? 1 : 0) << c.text;
        if (c.shortest == nullptr) continue;
        char text[INET6_ADDRSTRLEN];
        ASSERT_NE(inet_ntop(AF_INET6, &address, text, sizeof(text)), nullptr);
        EXPECT_STREQ(text, c.shortest) << c.text;
    }
}

TEST(NamesTest, Ipv4TextsAreStrictForInetPton) {
    in_addr address{};
    for (const char* text : {"1.2.3", "1.2.3.256", "1.2.3.4 ", "0x1.2.3.4", "1..3.4"}) {
        EXPECT_EQ(inet_pton(AF_INET, text, &address), 0) << text;
    }
    ASSERT_EQ(inet_pton(AF_INET, "192.0.2.33", &address), 1);
    char text[11];
    EXPECT_STREQ(inet_ntop(AF_INET, &address, text, 11), "192.0.2.33");
    EXPECT_EQ(inet_ntop(AF_INET, &address, text, 10), nullptr) << "no room for the terminator";
    EXPECT_EQ(inet_pton(AF_UNIX, "1.2.3.4", &address), -1);
    EXPECT_EQ(WSAGetLastError(), WSAEAFNOSUPPORT);
}

TEST(NamesTest, InetNtoaKeepsAThreadsTextToItself) {
    in_addr address{};
    address.s_addr = htonl(0x01020304);
    const char* mine = inet_ntoa(address);
    std::thread([] {
        in_addr other{};
        EXPECT_STREQ(inet_ntoa(other), "0.0.0.0");
    }).join();
    EXPECT_STREQ(mine, "1.2.3.4");
}

}  // namespace
