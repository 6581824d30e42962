// See relay_flow.h.
#include "relay/split/relay_flow.h"

#include <utility>

#include "relay/channel/pending_responses.h"
#include "relay/split/relay_close.h"
#include "relay/split/relay_requests.h"

namespace {

constexpr DWORD kMostSendsToASide = 3;
constexpr DWORD kMostSendsToTheAnalyzer = 5;
/// An analyzer that releases more than a side takes is read no further beyond this.
constexpr DWORD kMostAnswerBytes = 1024 * 1024;

void PostSideReceive(RelayHold& connection, const RelaySide& side) {
    if (!((*connection).*side.ReceivePosted).StoreIfStill(false, true)) return;
    if (PostRelayReceive((*connection).*side.Socket, kRelayReceiveBytes, side.Receive,
                         connection->RelayIndex))
        return;
    (*connection).*side.ReceivePosted = false;
    CloseEntireRelayConnection(connection, true);
}

void RepostSide(RelayHold& connection, const RelaySide& side) {
    Atomic<bool>& wanted = (*connection).*side.ReceiveWanted;
    if (!wanted || !IsLive(*connection, side)) return;
    if ((*connection).*OtherSide(side).PendingSends >= kMostSendsToASide) return;
    if (connection->PendingSpySends >= kMostSendsToTheAnalyzer) return;
    if (wanted.Exchange(false)) PostSideReceive(connection, side);
}

bool MayReadAnswers(const RelayConnection& connection) {
    const DWORD pending = connection.PendingServerBytes + connection.PendingClientBytes;
    return pending < kMostAnswerBytes || HasResponseWaiters(connection.SpySocket);
}

}  // namespace

void BeginToReceive(RelayHold& connection) {
    const bool serverIsThere = connection->AnalyzerServes || IsLive(*connection, kServerSide);
    if (!IsLive(*connection, kClientSide) || !serverIsThere || connection->Begun.Exchange(true)) return;
    PostSideReceive(connection, kClientSide);
    if (IsLive(*connection, kServerSide)) PostSideReceive(connection, kServerSide);
}

void WantReceive(RelayHold& connection, const RelaySide& side) {
    (*connection).*side.ReceiveWanted = true;
    RepostRelayReceives(connection);
}

void RemovePendingSend(DWORD operation, DWORD answerBytes, RelayHold& connection) {
    UncountPendingSend(operation, *connection);
    ((*connection).*SideOf(operation).PendingBytes).FetchAdd(0 - answerBytes);
    RepostRelayReceives(connection);
}

void RepostRelayReceives(RelayHold& connection) {
    RepostSide(connection, kClientSide);
    RepostSide(connection, kServerSide);
    if (connection->HeldSpyReceive != nullptr && MayReadAnswers(*connection))
        PostSpyReceive(std::move(connection->HeldSpyReceive), connection);
}

void PostSpyReceive(PooledPerIOData record, RelayHold& connection) {
    if (connection->SpySocket == INVALID_SOCKET) return;
    if (!MayReadAnswers(*connection)) {
        connection->HeldSpyReceive = std::move(record);
        return;
    }
    connection->SpyReceivePosted = true;
    if (PostRelayReceive(std::move(record))) return;
    connection->SpyReceivePosted = false;
    CloseEntireRelayConnection(connection, true);
}
