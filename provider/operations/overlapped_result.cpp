// WSPGetOverlappedResult: answered from what the layer wrote into the application's record. What the layer
// did with a socket of its own went down with its own record, so there the lower provider knows.
#include <guarded_call.h>

#include "base/layer_call.h"
#include "provider/catalog/lower_call.h"
#include "provider/contexts/socket_context.h"
#include "provider/operation_failure.h"
#include "provider/operations/operations.h"
#include "provider/overlapped/caller_record.h"

namespace {

constexpr DWORD kPollMilliseconds = 100;
constexpr DWORD kPollLimitMilliseconds = 180000;

/// What a look at the application's record gave.
struct OverlappedState {
    bool InProgress;
    HANDLE Event;
};

bool Look(const WSAOVERLAPPED* overlapped, OverlappedState* state) {
    return overlapped != nullptr && GuardedCall([&]() noexcept {
               state->InProgress = IsOverlappedInProgress(overlapped);
               state->Event = EventOf(overlapped);
           });
}

/// Waits until the request has ended. 0, or the error to report: WSA_IO_PENDING when it is still in progress.
INT WaitForEnd(const WSAOVERLAPPED* overlapped, OverlappedState state) {
    if (state.Event != nullptr) {
        const DWORD waited = WaitForSingleObject(state.Event, INFINITE);
        const DWORD waitError = GetLastError();
        if (!Look(overlapped, &state)) return WSAEFAULT;
        if (state.InProgress) return WSA_IO_PENDING;
        return waited == WAIT_FAILED ? static_cast<INT>(waitError) : 0;
    }
    for (DWORD waited = 0; state.InProgress && waited < kPollLimitMilliseconds; waited += kPollMilliseconds) {
        Sleep(kPollMilliseconds);
        if (!Look(overlapped, &state)) return WSAEFAULT;
    }
    return state.InProgress ? WSA_IO_PENDING : 0;
}

BOOL AskLowerProvider(SocketContext* context, LPWSAOVERLAPPED overlapped, LPDWORD bytes, BOOL wait,
                      LPDWORD flags, LPINT error) {
    LspEntry* const provider = context->Provider;
    *error = 0;
    const BOOL succeeded = CallLower(provider, BOOL{FALSE}, error, [&]() noexcept {
        return provider->LowerProcedures.lpWSPGetOverlappedResult(context->ProviderSocket, overlapped, bytes,
                                                                  wait, flags, error);
    });
    if (!succeeded) *error = LowerError(*error);
    return succeeded;
}

}  // namespace

BOOL WSPAPI WSPGetOverlappedResult(SOCKET s, LPWSAOVERLAPPED overlapped, LPDWORD bytes, BOOL wait,
                                   LPDWORD flags, LPINT error) {
    if (LayerCall::IsUnderWay()) {
        const ContextReference context(s, error);
        if (!context) return FALSE;
        if (context->OwnedByLayer)
            return AskLowerProvider(context.Get(), overlapped, bytes, wait, flags, error);
    }
    OverlappedState state = {};
    if (!Look(overlapped, &state)) {
        *error = WSAEFAULT;
        return FALSE;
    }
    if (state.InProgress) {
        const INT waitError = wait ? WaitForEnd(overlapped, state) : INT{WSA_IO_INCOMPLETE};
        if (waitError != 0) {
            *error = waitError;
            return FALSE;
        }
    }
    INT result = WSAEFAULT;
    if (bytes == nullptr || flags == nullptr || !GuardedCall([&]() noexcept {
            *bytes = static_cast<DWORD>(overlapped->InternalHigh);
            *flags = overlapped->Offset;
            result = static_cast<INT>(overlapped->OffsetHigh);
        })) {
        *error = WSAEFAULT;
        return FALSE;
    }
    *error = result;
    return result == 0 ? TRUE : FALSE;
}
