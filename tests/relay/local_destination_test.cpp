// The classification of destinations against a plain reading of their address text.
#include <winsock2.h>

#include <ws2tcpip.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

#include "provider/contexts/socket_context.h"
#include "relay/channel/local_destination.h"
#include "tests/support/layer_fixture.h"

namespace {

void SetDestination(SocketContext& context, const sockaddr_in& address) {
    context.DestinationAddress.Store(&address, sizeof(address));
}

/// By the text alone, read in a way of its own.
bool IsLocalText(const std::string& text) {
    int octets[4] = {};
    if (std::sscanf(text.c_str(), "%d.%d.%d.%d:", &octets[0], &octets[1], &octets[2], &octets[3]) != 4)
        return true;
    switch (octets[0]) {
        case 0:
        case 10:
        case 127:
        case 224:
        case 255:
            return true;
        case 172:
            if (octets[1] / 16 == 1) return true;
            break;
        case 192:
            if (octets[1] == 168) return true;
            break;
        default:
            break;
    }
    return octets[3] % 255 == 0;
}

TEST(AddressOctet, ReadsTheNumberAtTheStartOfAField) {
    const struct {
        const char* text;
        int field;
        int octet;
    } cases[] = {
        {"192.168.7.4:80", 0, 192},
        {"192.168.7.4:80", 2, 7},
        {"192.168.7.4:80", 3, 4},
        {"1.2", 3, 2},
        {"<undefined>", 0, 0},
        {"", 2, 0},
        {"1..3", 1, 0},
        {" +7.x", 0, 7},
        {"fe80::1", 0, 0},
        {"2001:db8::1", 0, 209},
        {"1.2.3.", 3, 0},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(static_cast<unsigned char>(AddressOctet(row.text, row.field)), row.octet) << row.text;
    }
}

TEST(LocalDestination, AgreesWithTheAddressText) {
    const char* const edges[] = {"192.168.1.5", "10.0.0.1",   "172.15.0.1",    "172.16.0.1", "172.31.9.9",
                                 "172.32.0.1",  "127.0.0.1",  "0.0.0.1",       "224.0.0.1",  "225.0.0.1",
                                 "8.8.8.0",     "8.8.8.255",  "192.169.0.1",   "8.8.8.8",    "255.1.2.3",
                                 "11.255.0.1",  "93.184.0.0", "100.64.255.254"};
    SocketContext context;
    context.SocketType = SOCK_STREAM;
    int locals = 0;
    const auto check = [&](const std::string& address) {
        SetDestination(context, Ipv4(address, 4080));
        const bool local = IsLocalDestination(&context);
        EXPECT_EQ(local, IsLocalText(address + ":4080")) << address;
        locals += local ? 1 : 0;
    };
    for (const char* address : edges)
        check(address);
    EXPECT_EQ(locals, 11);

    std::mt19937 random(20260);
    for (int i = 0; i < 20000; ++i) {
        // Every second address has numbers that the rules name.
        const int named[] = {0, 10, 16, 31, 127, 168, 172, 192, 224, 255};
        std::string address;
        for (int octet = 0; octet < 4; ++octet) {
            const int value = i % 2 == 0 ? named[random() % 10] : static_cast<int>(random() % 256);
            address += (octet == 0 ? "" : ".") + std::to_string(value);
        }
        check(address);
    }
}

TEST(LocalDestination, DependsOnFamilyAndSocketType) {
    SocketContext context;
    context.SocketType = SOCK_RAW;
    SetDestination(context, Ipv4("8.8.8.8", 80));
    context.CountTraffic = context.ReportTraffic = context.InspectData = context.AnalyzerServes = TRUE;
    context.RelayWanted = TRUE;
    EXPECT_TRUE(IsLocalDestination(&context));
    EXPECT_FALSE(context.CountTraffic || context.ReportTraffic || context.InspectData ||
                 context.AnalyzerServes);
    EXPECT_TRUE(context.RelayWanted) << "the route is not this function's to clear";

    context.SocketType = SOCK_DGRAM;
    context.CountTraffic = TRUE;
    EXPECT_FALSE(IsLocalDestination(&context));
    EXPECT_TRUE(context.CountTraffic);

    // Text of this one begins with 2001, which as an octet would not be local.
    sockaddr_in6 six{};
    six.sin6_family = AF_INET6;
    six.sin6_addr.s6_addr[0] = 0x20;
    six.sin6_addr.s6_addr[1] = 0x01;
    six.sin6_addr.s6_addr[15] = 1;
    context.DestinationAddress.Store(&six, sizeof(six));
    EXPECT_TRUE(IsLocalDestination(&context));

    sockaddr_in odd = Ipv4("8.8.8.8", 80);
    odd.sin_family = 77;
    SetDestination(context, odd);
    EXPECT_TRUE(IsLocalDestination(&context));
}

}  // namespace
