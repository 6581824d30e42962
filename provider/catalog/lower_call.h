// Calls into a lower provider. While one runs, the thread slot says which entry is being called (a blocking
// call is cancelled through it); whatever the lower provider raises becomes a failure with WSAEFAULT, so that
// the caller's reference and the slot are given back on every path. No lock of the library may be held, save
// where a declaration says so.
#pragma once

#include <winsock2.h>
#include <ws2spi.h>

#include <guarded_call.h>
#include <windows.h>

#include <utility>

#include "provider/catalog/lsp_entry.h"
#include "provider/operation_failure.h"
#include "provider/process_state.h"

/// Scoped holder of the thread slot.
class LowerCall {
  public:
    explicit LowerCall(LspEntry* provider) { Store(provider); }
    ~LowerCall() { Store(nullptr); }
    LowerCall(const LowerCall&) = delete;
    LowerCall& operator=(const LowerCall&) = delete;

  private:
    /// The last error stays: it may be the lower call's, and say that a request is under way.
    static void Store(LspEntry* provider) {
        if (ThreadSlot == TLS_OUT_OF_INDEXES) return;
        const DWORD lastError = GetLastError();
        if (!TlsSetValue(ThreadSlot, provider)) SetLastError(lastError);
    }
};

/// Runs `call()` as a call into the lower provider of `provider` and returns its result; `failure` with
/// `*error` WSAEFAULT when it raised. For the caller that makes something of a failure without an error; all
/// others use CallLower.
template <class Call, class Result = decltype(std::declval<Call&>()())>
Result RunLowerCall(LspEntry* provider, Result failure, LPINT error, Call call) {
    Result result = failure;
    const LowerCall slot(provider);
    if (!GuardedCall([&]() noexcept { result = call(); })) {
        *error = WSAEFAULT;
        return failure;
    }
    return result;
}

/// The same for a call that stores its error in `*error`: when the result is `failure`, there is one.
template <class Call, class Result = decltype(std::declval<Call&>()())>
Result CallLower(LspEntry* provider, Result failure, LPINT error, Call call) {
    // What the caller's variable holds is not this call's error.
    *error = 0;
    const Result result = RunLowerCall(provider, failure, error, call);
    if (result == failure) *error = LowerError(*error);
    return result;
}
