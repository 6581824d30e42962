// What the tests of the base provider's overlapped requests share: a completion port, and requests told
// there.
#pragma once

#include "tests/platform/tcpip/base_provider.h"

class OverlappedTest : public BaseProvider {
  protected:
    void SetUp() override {
        BaseProvider::SetUp();
        port_ = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
    }
    void TearDown() override {
        CloseHandle(port_);
        BaseProvider::TearDown();
    }

    void Associate(SOCKET s) {
        EXPECT_EQ(CreateIoCompletionPort(reinterpret_cast<HANDLE>(s), port_, s, 0), port_);
    }

    /// The error of starting a receive; 0 when it completed at once.
    int StartReceive(SOCKET s, char* data, ULONG size, OVERLAPPED* overlapped, DWORD startFlags = 0,
                     LPWSAOVERLAPPED_COMPLETION_ROUTINE routine = nullptr) {
        WSABUF buffer = {size, data};
        DWORD flags = startFlags;
        const int result = CALL(Recv, s, &buffer, 1, nullptr, &flags, overlapped, routine, nullptr);
        return result == 0 ? 0 : Error;
    }

    int StartSend(SOCKET s, const char* data, ULONG size, OVERLAPPED* overlapped, DWORD* sent = nullptr) {
        WSABUF buffer = {size, const_cast<char*>(data)};
        const int result = CALL(Send, s, &buffer, 1, sent, 0, overlapped, nullptr, nullptr);
        return result == 0 ? 0 : Error;
    }

    /// A connection whose client is sending more than fits on the way.
    void ConnectAndStartSend(SOCKET* client, SOCKET* server, const std::string& data,
                             OVERLAPPED* overlapped) {
        Connect(client, server);
        Associate(*client);
        SetNumber(*client, SOL_SOCKET, SO_SNDBUF, 65536);
        EXPECT_EQ(StartSend(*client, data.data(), static_cast<ULONG>(data.size()), overlapped),
                  WSA_IO_PENDING);
    }

    /// The error of a request, 0 for success; `*bytes` is set.
    int ResultOf(SOCKET s, OVERLAPPED* overlapped, DWORD* bytes, bool wait = false, DWORD* flags = nullptr) {
        DWORD ignored = 0;
        if (flags == nullptr) flags = &ignored;
        return CALL(GetOverlappedResult, s, overlapped, bytes, wait ? TRUE : FALSE, flags) ? 0 : Error;
    }

    void ExpectNoPacket() {
        OVERLAPPED* overlapped = nullptr;
        DWORD error = 0;
        NextPacket(port_, &overlapped, &error, 0);
        EXPECT_EQ(overlapped, nullptr);
        EXPECT_EQ(error, static_cast<DWORD>(WAIT_TIMEOUT));
    }

    /// Waits for the packet of exactly this record.
    DWORD ExpectPacket(OVERLAPPED* expected, DWORD expectedError = 0) {
        OVERLAPPED* overlapped = nullptr;
        DWORD error = 0;
        const DWORD bytes = NextPacket(port_, &overlapped, &error);
        EXPECT_EQ(overlapped, expected);
        EXPECT_EQ(error, expectedError);
        return bytes;
    }

    HANDLE port_ = nullptr;
};
