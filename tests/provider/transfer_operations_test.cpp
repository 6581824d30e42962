// Sends and receives that are carried out at once: what is counted, what the analysis sees, what a block
// does.
#include "tests/provider/fake_winsock.h"
#include "tests/support/callback.h"

namespace {

class TransferOperations : public FakeSocket {
  protected:
    void SetUp() override {
        FakeSocket::SetUp();
        calls_ = 0;
        lowerError_ = 0;
        Lower().lpWSPSend = Callback([](SOCKET, LPWSABUF, DWORD, LPDWORD bytes, DWORD, LPWSAOVERLAPPED,
                                        LPWSAOVERLAPPED_COMPLETION_ROUTINE, LPWSATHREADID,
                                        LPINT error) { return Transfer(bytes, 7, error); });
        Lower().lpWSPSendTo = Callback([](SOCKET, LPWSABUF, DWORD, LPDWORD bytes, DWORD, const sockaddr*, int,
                                          LPWSAOVERLAPPED, LPWSAOVERLAPPED_COMPLETION_ROUTINE, LPWSATHREADID,
                                          LPINT error) { return Transfer(bytes, 8, error); });
        Lower().lpWSPRecv = Callback([](SOCKET, LPWSABUF, DWORD, LPDWORD bytes, LPDWORD, LPWSAOVERLAPPED,
                                        LPWSAOVERLAPPED_COMPLETION_ROUTINE, LPWSATHREADID,
                                        LPINT error) { return Transfer(bytes, 5, error); });
        Lower().lpWSPRecvFrom =
            Callback([](SOCKET, LPWSABUF, DWORD, LPDWORD bytes, LPDWORD, sockaddr* from, LPINT length,
                        LPWSAOVERLAPPED, LPWSAOVERLAPPED_COMPLETION_ROUTINE, LPWSATHREADID, LPINT error) {
                const sockaddr_in source = MakeAddress("198.51.100.7", 53);
                if (from != nullptr) std::memcpy(from, &source, sizeof(source));
                if (length != nullptr) *length = sizeof(source);
                return Transfer(bytes, 6, error);
            });
    }

    /// Error of each operation, or 0.
    int Send() {
        return ErrorOf(WSPSend(s_, &buffer_, 1, &bytes_, 0, nullptr, nullptr, nullptr, &error_) == 0);
    }
    int SendTo(const sockaddr_in& to, int length = sizeof(sockaddr_in)) {
        return ErrorOf(WSPSendTo(s_, &buffer_, 1, &bytes_, 0, reinterpret_cast<const sockaddr*>(&to), length,
                                 nullptr, nullptr, nullptr, &error_) == 0);
    }
    int Recv() {
        return ErrorOf(WSPRecv(s_, &buffer_, 1, &bytes_, &flags_, nullptr, nullptr, nullptr, &error_) == 0);
    }
    int RecvFrom(sockaddr* from, LPINT length) {
        return ErrorOf(WSPRecvFrom(s_, &buffer_, 1, &bytes_, &flags_, from, length, nullptr, nullptr, nullptr,
                                   &error_) == 0);
    }

    static inline int calls_;
    static inline int lowerError_;
    char data_[16] = {};
    WSABUF buffer_ = {sizeof(data_), data_};
    DWORD bytes_ = 999;  // what a failed call leaves in the application's variable
    DWORD flags_ = 0;

    /// A place that the application has given back by the time a call returns.
    static LPDWORD Gone() { return reinterpret_cast<LPDWORD>(8); }

  private:
    static int Transfer(LPDWORD bytes, DWORD count, LPINT error) {
        ++calls_;
        if (lowerError_ != 0) {
            *error = lowerError_;
            return SOCKET_ERROR;
        }
        if (bytes != nullptr && bytes != Gone()) *bytes = count;
        return 0;
    }
};

TEST_F(TransferOperations, CountsWhatWentThrough) {
    EXPECT_EQ(Send() + Recv() + RecvFrom(nullptr, nullptr) + SendTo(MakeAddress("198.51.100.7", 53)), 0);
    EXPECT_EQ(context_->BytesSent, 15u);
    EXPECT_EQ(context_->BytesRecv, 11u);
    lowerError_ = WSAEWOULDBLOCK;
    bytes_ = 999;
    EXPECT_EQ(Recv(), WSAEWOULDBLOCK);
    EXPECT_EQ(Send(), WSAEWOULDBLOCK);
    EXPECT_EQ(context_->BytesSent, 15u);
    EXPECT_EQ(context_->BytesRecv, 11u);
    EXPECT_EQ(Fake().receivedBytes, (std::vector<DWORD>{5, 6, 0})) << "nothing fresh in a failed receive";
    lowerError_ = 0;
    EXPECT_EQ(WSPRecv(s_, &buffer_, 1, nullptr, &flags_, nullptr, nullptr, nullptr, &error_), 0);
}

TEST_F(TransferOperations, ACountThatIsGoneIsNone) {
    const sockaddr_in to = MakeAddress("198.51.100.7", 53);
    EXPECT_EQ(WSPSend(s_, &buffer_, 1, Gone(), 0, nullptr, nullptr, nullptr, &error_), 0);
    EXPECT_EQ(WSPSendTo(s_, &buffer_, 1, Gone(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to),
                        nullptr, nullptr, nullptr, &error_),
              0);
    EXPECT_EQ(WSPRecv(s_, &buffer_, 1, Gone(), &flags_, nullptr, nullptr, nullptr, &error_), 0);
    EXPECT_EQ(
        WSPRecvFrom(s_, &buffer_, 1, Gone(), &flags_, nullptr, nullptr, nullptr, nullptr, nullptr, &error_),
        0);
    EXPECT_EQ(context_->BytesSent + context_->BytesRecv, 0u);
}

TEST_F(TransferOperations, AddressesOfDatagramsBecomeTheDestination) {
    sockaddr_in from{};
    INT length = sizeof(from);
    context_->SocketType = SOCK_STREAM;
    EXPECT_EQ(RecvFrom(reinterpret_cast<sockaddr*>(&from), &length), 0);
    EXPECT_EQ(SendTo(MakeAddress("198.51.100.8", 54)), 0);
    EXPECT_EQ(context_->DestinationAddress.Port(), 0) << "a stream keeps the one that it is connected to";
    context_->SocketType = SOCK_DGRAM;
    EXPECT_EQ(RecvFrom(reinterpret_cast<sockaddr*>(&from), &length), 0);
    EXPECT_EQ(context_->DestinationAddress.Port(), 53);
    EXPECT_EQ(context_->DestinationAddressLength, 16);
    EXPECT_EQ(SendTo(MakeAddress("198.51.100.8", 54)), 0);
    EXPECT_EQ(context_->DestinationAddress.Port(), 54);
    lowerError_ = WSAEWOULDBLOCK;
    EXPECT_EQ(RecvFrom(reinterpret_cast<sockaddr*>(&from), &length), WSAEWOULDBLOCK);
    EXPECT_EQ(context_->DestinationAddress.Port(), 54) << "nothing came from anywhere";
    EXPECT_EQ(SendTo(from, 129), WSAEFAULT);
}

TEST_F(TransferOperations, VerdictBlocksUntilAReceiveIsAskedAgain) {
    Fake().sent = [](SocketContext* context) { context->Blocked = TRUE; };
    EXPECT_EQ(Send(), WSAECONNABORTED);
    EXPECT_EQ(calls_, 0) << "the data has not left";
    Fake().sent = nullptr;
    EXPECT_EQ(SendTo(MakeAddress("198.51.100.8", 54)), WSAECONNABORTED) << "a send does not clear it";
    EXPECT_EQ(Recv(), 0);
    EXPECT_EQ(Send(), 0);

    Fake().received = [](SocketContext* context, const WSABUF*, const sockaddr*) { context->Blocked = TRUE; };
    EXPECT_EQ(Recv(), WSAECONNABORTED) << "data already read is not returned";
    EXPECT_EQ(WSAGetLastError(), WSAECONNABORTED);
}

TEST_F(TransferOperations, BlockWithAnErrorOfItsOwnStays) {
    context_->Blocked = TRUE;
    context_->BlockError = WSAETIMEDOUT;
    EXPECT_EQ(Recv(), WSAETIMEDOUT);
    EXPECT_EQ(RecvFrom(nullptr, nullptr), WSAETIMEDOUT);
    EXPECT_EQ(Send(), WSAETIMEDOUT);
    EXPECT_EQ(calls_, 0) << "nobody waits for a server that is not there";
    EXPECT_TRUE(context_->Blocked);
}

}  // namespace
