// Where a ConnectEx goes by its verdict: to the destination, to the relay, or nowhere.
#include "tests/provider/overlapped_requests.h"

namespace {

enum class Split { kNone, kMade, kFailed };

TEST_P(OverlappedRequests, ConnectExGoesWhereItsVerdictSays) {
    constexpr struct {
        const char* what;
        ConnectTarget::Way way;
        Split split;
        int lowerAnswer;
        int error;
        const char* lowerName;  // null: nothing comes down
    } kRows[] = {
        {"allowed", ConnectTarget::Way::kDirect, Split::kNone, 0, 0, "198.51.100.8:54 16"},
        {"refused", ConnectTarget::Way::kRefused, Split::kNone, 0, WSAECONNREFUSED, nullptr},
        {"closed meanwhile", ConnectTarget::Way::kSocketClosed, Split::kNone, 0, WSA_OPERATION_ABORTED,
         nullptr},
        {"a split that fails", ConnectTarget::Way::kThroughRelay, Split::kFailed, 0, WSAECONNREFUSED,
         nullptr},
        {"split", ConnectTarget::Way::kThroughRelay, Split::kMade, 0, 0, "127.0.0.1:48300 128"},
        {"split, and the relay does not answer", ConnectTarget::Way::kThroughRelay, Split::kMade,
         WSAECONNRESET, WSAECONNRESET, "127.0.0.1:48300 128"},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.what);
        Fake().verdict = [&row](SocketContext*, ConnectTarget* target) {
            target->way = row.way;
            return true;
        };
        Fake().split = [&row](SocketContext*, ConnectTarget* target) {
            const sockaddr_in relay = MakeAddress("127.0.0.1", 48300);
            std::memcpy(&target->name, &relay, sizeof(relay));
            target->length = 128;
            return row.split == Split::kMade;
        };
        lower_->Answer(row.lowerAnswer);
        const SOCKET s = Open();
        Request request;
        const std::size_t before = lower_->Count();
        const int result = Start(OverlappedType::kConnectEx, s, request);
        EXPECT_EQ(Ended(result, request, false), static_cast<DWORD>(row.error));
        ASSERT_EQ(lower_->Count(), before + (row.lowerName != nullptr ? 1 : 0));
        if (row.lowerName != nullptr) {
            EXPECT_EQ(lower_->WaitFor(before + 1).name, row.lowerName);
        }
        SocketContext* const context = ContextOf(s);
        EXPECT_EQ(context->DestinationAddress.Port(), 54) << "the one that the application gave";
        EXPECT_EQ(context->DestinationAddressLength, 16);
        EXPECT_EQ(context->BytesSent, row.error == 0 ? DWORD{LowerRequests::kBytesAtOnce} : 0u);
        CloseLetGo(s);
    }
}

}  // namespace
