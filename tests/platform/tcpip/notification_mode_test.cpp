// A socket whose successes inside the call are kept from its completion port.
#include "tests/platform/tcpip/base_provider.h"

namespace {

using NotificationMode = BaseProvider;

TEST_F(NotificationMode, OnlyWhatEndsLaterQueuesAPacket) {
    SOCKET client, server;
    Connect(&client, &server);
    const HANDLE port = CreateIoCompletionPort(reinterpret_cast<HANDLE>(server), nullptr, 0, 0);
    ASSERT_NE(port, nullptr);
    const auto file = reinterpret_cast<HANDLE>(server);
    if (Keeps(Documented::kUnknownModesAreRefused)) {
        EXPECT_FALSE(SetFileCompletionNotificationModes(file, 0x80));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    }
    ASSERT_TRUE(SetFileCompletionNotificationModes(file, FILE_SKIP_COMPLETION_PORT_ON_SUCCESS));

    char text[] = "abc";
    WSABUF buffer = {3, text};
    DWORD bytes = 0;
    OVERLAPPED send = {};
    send.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    ASSERT_EQ(CALL(Send, server, &buffer, 1, &bytes, 0, &send, nullptr, nullptr), 0) << Error;
    EXPECT_EQ(WaitForSingleObject(send.hEvent, 0), WAIT_OBJECT_0) << "whoever waits for it is told";
    EXPECT_EQ(send.InternalHigh, 3u);
    CloseHandle(send.hEvent);

    DWORD flags = 0;
    OVERLAPPED receive = {};
    EXPECT_EQ(CALL(Recv, server, &buffer, 1, nullptr, &flags, &receive, nullptr, nullptr), SOCKET_ERROR);
    EXPECT_EQ(Error, WSA_IO_PENDING);
    EXPECT_EQ(Send(client, "xy"), 2);
    OVERLAPPED* overlapped = nullptr;
    DWORD error = 0;
    EXPECT_EQ(NextPacket(port, &overlapped, &error), 2u);
    EXPECT_EQ(overlapped, &receive) << "the send before it has queued none";
    Close(client);
    Close(server);
    CloseHandle(port);
}

}  // namespace
