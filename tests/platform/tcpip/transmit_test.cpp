// Files on their way through TransmitFile and TransmitPackets, byte for byte.
#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/platform/tcpip/overlapped_base_provider.h"

namespace {

class TransmitTest : public OverlappedTest {
  protected:
    void SetUp() override {
        OverlappedTest::SetUp();
        // No two chunks of it are alike.
        for (int i = 0; content_.size() < 300'000; ++i)
            content_ += std::to_string(i) + ",";
        std::ofstream(path_, std::ios::binary) << content_;
        file_ = CreateFileA(path_.string().c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                            FILE_ATTRIBUTE_NORMAL, nullptr);
        ASSERT_NE(file_, INVALID_HANDLE_VALUE) << GetLastError();
        Connect(&client_, &server_);
        Associate(client_);
        transmitFile_ = Extension<LPFN_TRANSMITFILE>(client_, WSAID_TRANSMITFILE);
    }
    void TearDown() override {
        CloseHandle(file_);
        std::filesystem::remove(path_);
        OverlappedTest::TearDown();
    }

    /// Receives exactly that many bytes, or until the end.
    std::string ReceiveAll(std::size_t size) {
        std::string all;
        while (all.size() < size) {
            const std::string piece = Receive(server_, static_cast<ULONG>(size - all.size()));
            if (piece.empty()) break;
            all += piece;
        }
        return all;
    }

    std::string content_;
    const std::filesystem::path path_ =
        std::filesystem::temp_directory_path() / ("qx-transmit-" + std::to_string(GetCurrentProcessId()));
    HANDLE file_ = INVALID_HANDLE_VALUE;
    SOCKET client_ = INVALID_SOCKET;
    SOCKET server_ = INVALID_SOCKET;
    LPFN_TRANSMITFILE transmitFile_ = nullptr;
};

TEST_F(TransmitTest, RangesOfAFileArriveBetweenHeaderAndTrailer) {
    const struct {
        const char* what;
        DWORD offset, size;  // of size 0: the rest
        std::string head, tail;
    } cases[] = {
        {"the whole file", 0, 0, "", ""},        {"the whole file, framed", 0, 0, "head", "tail"},
        {"a range", 70'001, 65'537, "", "tail"}, {"the rest", 299'000, 0, "head", ""},
        {"one byte", 5, 1, "head", "tail"},
    };
    for (const auto& test : cases) {
        for (const bool overlapped : {false, true}) {
            SCOPED_TRACE(std::string(test.what) + (overlapped ? ", overlapped" : ""));
            const std::string expected =
                test.head + content_.substr(test.offset, test.size == 0 ? std::string::npos : test.size) +
                test.tail;
            TRANSMIT_FILE_BUFFERS buffers = {
                const_cast<char*>(test.head.data()), static_cast<DWORD>(test.head.size()),
                const_cast<char*>(test.tail.data()), static_cast<DWORD>(test.tail.size())};
            OVERLAPPED record = {};
            record.Offset = test.offset;
            std::string received;
            std::thread receiver([&] { received = ReceiveAll(expected.size()); });
            SetFilePointer(file_, static_cast<LONG>(overlapped ? 17 : test.offset), nullptr, FILE_BEGIN);
            const BOOL done = transmitFile_(client_, file_, test.size, 0, overlapped ? &record : nullptr,
                                            &buffers, TF_USE_KERNEL_APC);
            if (overlapped) {
                EXPECT_TRUE(done || GetLastError() == WSA_IO_PENDING) << GetLastError();
                EXPECT_EQ(ExpectPacket(&record), expected.size());
            } else {
                EXPECT_TRUE(done) << GetLastError();
            }
            receiver.join();
            EXPECT_TRUE(received == expected) << received.size() << " bytes of " << expected.size();
        }
    }
}

TEST_F(TransmitTest, GoesOnFromTheFilesPosition) {
    EXPECT_EQ(SetFilePointer(file_, 100, nullptr, FILE_BEGIN), 100u);
    EXPECT_TRUE(transmitFile_(client_, file_, 50, 0, nullptr, nullptr, 0));
    EXPECT_TRUE(transmitFile_(client_, file_, 25, 0, nullptr, nullptr, 0));
    EXPECT_EQ(ReceiveAll(75), content_.substr(100, 75));
    EXPECT_EQ(SetFilePointer(file_, 0, nullptr, FILE_CURRENT), 175u);
}

TEST_F(TransmitTest, WaitsForAPeerThatDoesNotRead) {
    if (!Keeps(Documented::kTransmissionsGoOn)) GTEST_SKIP() << "not here";
    SetNumber(client_, SOL_SOCKET, SO_SNDBUF, 65536);
    std::ofstream(path_, std::ios::binary | std::ios::app) << std::string(8'000'000, 'x');
    OVERLAPPED record = {};
    EXPECT_FALSE(transmitFile_(client_, file_, 0, 0, &record, nullptr, TF_DISCONNECT));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(WSA_IO_PENDING));
    const std::string expected = content_ + std::string(8'000'000, 'x');
    EXPECT_TRUE(ReceiveAll(expected.size()) == expected);
    EXPECT_EQ(ExpectPacket(&record), expected.size());
    EXPECT_EQ(Receive(server_), "");
}

TEST_F(TransmitTest, ASocketIsReusedWhenTheFileIsSent) {
    if (!Keeps(Documented::kSocketsAreReused)) GTEST_SKIP() << "not here";
    for (const bool overlapped : {false, true}) {
        OVERLAPPED record = {};
        EXPECT_TRUE(transmitFile_(client_, file_, 10, 0, overlapped ? &record : nullptr, nullptr,
                                  TF_DISCONNECT | TF_REUSE_SOCKET))
            << GetLastError();
        EXPECT_EQ(ReceiveAll(11), content_.substr(0, 10));
        if (overlapped) ExpectPacket(&record);
        SetFilePointer(file_, 0, nullptr, FILE_BEGIN);
        sockaddr_in name;
        const SOCKET listener = Listener(&name);
        ASSERT_EQ(BaseProvider::Connect(client_, name), 0) << Error;
        server_ = Accept(listener);
    }
    EXPECT_FALSE(transmitFile_(client_, file_, 10, 0, nullptr, nullptr, TF_REUSE_SOCKET));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(WSAEINVAL)) << "reuse without an end";
}

TEST_F(TransmitTest, AnUnconnectedSocketSendsNothing) {
    const SOCKET s = Stream();
    const auto transmitFile = Extension<LPFN_TRANSMITFILE>(s, WSAID_TRANSMITFILE);
    EXPECT_FALSE(transmitFile(s, file_, 10, 0, nullptr, nullptr, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(WSAENOTCONN));
    EXPECT_EQ(SetFilePointer(file_, 0, nullptr, FILE_CURRENT), 0u);
}

#ifndef _WIN32
// The system has no such extension under Wine.
TEST_F(TransmitTest, PacketsMixMemoryAndFiles) {
    const auto transmitPackets = Extension<LPFN_TRANSMITPACKETS>(client_, WSAID_TRANSMITPACKETS);
    char between[] = "between";
    TRANSMIT_PACKETS_ELEMENT elements[3] = {};
    elements[0].dwElFlags = elements[2].dwElFlags = TP_ELEMENT_FILE;
    elements[0].hFile = elements[2].hFile = file_;
    elements[0].cLength = 20;
    elements[0].nFileOffset.QuadPart = -1;
    elements[1].dwElFlags = TP_ELEMENT_MEMORY;
    elements[1].cLength = 7;
    elements[1].pBuffer = between;
    elements[2].nFileOffset.QuadPart = static_cast<LONGLONG>(content_.size()) - 9;
    SetFilePointer(file_, 1000, nullptr, FILE_BEGIN);
    OVERLAPPED record = {};
    EXPECT_TRUE(transmitPackets(client_, elements, 3, 0, &record, 0)) << GetLastError();
    EXPECT_EQ(ExpectPacket(&record), 36u);
    EXPECT_EQ(ReceiveAll(36), content_.substr(1000, 20) + "between" + content_.substr(content_.size() - 9));
    elements[1].dwElFlags = 0;
    EXPECT_FALSE(transmitPackets(client_, elements, 3, 0, nullptr, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(WSAEINVAL)) << "an element of no kind";
}
#endif

}  // namespace
