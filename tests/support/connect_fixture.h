// The layer's fixture with a scripted analyzer and two origin servers behind public addresses.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/layer_fixture.h"
#include "tests/support/loopback_stream.h"
#include "tests/support/scripted_analyzer.h"

class ConnectFixture : public LayerFixture {
  protected:
    static constexpr char kPublic[] = "203.0.113.10";
    static constexpr char kOther[] = "198.51.100.20";
    static constexpr std::uint16_t kPort = 80;

    void SetUp() override {
        LayerFixture::SetUp();
        SetAnalyzerPort(analyzer_.Port());
        RouteTo("203.0.113.10:80", origin_.Port());
        RouteTo("198.51.100.20:80", otherOrigin_.Port());
    }

    /// The error of a connect, or 0.
    static int Connect(SOCKET s, const sockaddr_in& address) {
        if (connect(s, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) return 0;
        return WSAGetLastError();
    }
    static int ConnectToPublic(SOCKET s) { return Connect(s, Ipv4(kPublic, kPort)); }

    /// The error of a connect of a new socket to the public address.
    static int ConnectOnce() {
        const SOCKET s = StreamSocket();
        const int error = ConnectToPublic(s);
        EXPECT_EQ(closesocket(s), 0);
        return error;
    }

    static SOCKET StreamSocket() {
        const SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
        EXPECT_NE(s, INVALID_SOCKET) << WSAGetLastError();
        return s;
    }

    static std::string PeerName(SOCKET s) {
        sockaddr_in peer{};
        int length = sizeof(peer);
        if (getpeername(s, reinterpret_cast<sockaddr*>(&peer), &length) != 0) return "none";
        return std::string(inet_ntoa(peer.sin_addr)) + ":" + std::to_string(ntohs(peer.sin_port));
    }

    /// The requests about connects, and how often a request with an operation has come.
    std::vector<SeenRequest> ConnectRequests() const;
    std::size_t CountRequests(std::uint32_t operation) const;

    ScriptedAnalyzer analyzer_;
    LoopbackListener origin_;
    LoopbackListener otherOrigin_;
};

/// A script that answers connects with these one after the other, and with the last for ever. What else is
/// asked is allowed and leaves the flags as they are.
ScriptedAnalyzer::Script AnswerInOrder(std::vector<ScriptedAnswer> answers);
