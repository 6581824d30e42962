// Fault points: every function of the stand-in that can fail on Windows starts with one, and tests make it
// fail.
//
//   HANDLE CreateEventA(...) {
//       PlatformCall call("CreateEventA", ERROR_NOT_ENOUGH_MEMORY);
//       if (call.Fails()) return nullptr;   // the last error is set
//
// Only outermost calls count: what a platform function calls of the platform meanwhile, on the same thread,
// does not. A ProviderBoundary stands around every call out of the platform (provider operations, APCs,
// DllMain, callbacks), so calls made in there are outermost again. A sweep over n therefore visits exactly
// the calls of the layer and the application. PlatformCall is the first object of its function: terminated
// threads end in its destructor, when nothing else of the function is left.
//
// Any thread may call. While nothing is armed or counted, a PlatformCall costs one relaxed load.
#pragma once

#include <windows.h>

#include <atomic>
#include <string>
#include <vector>

#include "platform/guard/call_depth.h"

namespace platform {

enum class FaultKind {
    kError,       // the call fails
    kShortCount,  // the call transfers at most `value` bytes, where it transfers any; elsewhere it goes on
    kException,   // the call raises the structured exception `value`
    kIgnored,     // the call reports success and does nothing, where that is possible; elsewhere it goes on
};

/// One armed fault: the `nth` counted call of `function` (of any function when empty), from ArmFault on,
/// counted from 1.
struct Fault {
    std::string function;
    int nth = 1;
    FaultKind kind = FaultKind::kError;
    DWORD value = 0;  // kError: the error, 0 for the function's own; kShortCount: bytes; kException: the code
    bool repeat = false;  // also every later one
};

/// Arms one more fault and starts counting from this call on.
void ArmFault(const Fault& fault);

/// Counts calls without failing any.
void CountCalls();

/// Disarms all faults and stops counting.
void DisarmFaults();

/// How often an armed fault has struck since the first ArmFault or CountCalls after DisarmFaults.
int FaultsStruck();

/// The names of the counted calls, in order, since the first ArmFault or CountCalls after DisarmFaults (the
/// first 100,000 of them).
std::vector<std::string> CountedCalls();

/// Arms a fault for one scope.
class ScopedFault {
  public:
    explicit ScopedFault(const Fault& fault) { ArmFault(fault); }
    ~ScopedFault() { DisarmFaults(); }
    ScopedFault(const ScopedFault&) = delete;
    ScopedFault& operator=(const ScopedFault&) = delete;
};

/// The call scope of a platform function that cannot fail but may wait or call other platform functions: what
/// it calls does not count, and a terminated thread ends here.
class PlatformScope {
  public:
    PlatformScope() {
        if (CurrentCallDepth().calls++ == 0 && Attention.load(std::memory_order_relaxed) != 0)
            EnterOutermost();
    }
    ~PlatformScope() noexcept {
        if (--CurrentCallDepth().calls == 0 && Attention.load(std::memory_order_relaxed) != 0)
            LeaveOutermost();
    }
    PlatformScope(const PlatformScope&) = delete;
    PlatformScope& operator=(const PlatformScope&) = delete;

    /// Non-zero while somebody has to be asked: faults, counting, terminated threads, process end
    /// (AttentionBit).
    static std::atomic<unsigned> Attention;

  private:
    static void EnterOutermost() noexcept;
    static void LeaveOutermost() noexcept;
};

enum AttentionBit : unsigned { kFaultAttention = 1, kTerminationAttention = 2, kProcessEndAttention = 4 };

/// The fault point and call scope at the start of a platform function. `defaultError` is what the call fails
/// with when the fault names no error; `name` lives for ever.
class PlatformCall {
  public:
    PlatformCall(const char* name, DWORD defaultError) {
        if ((PlatformScope::Attention.load(std::memory_order_relaxed) & kFaultAttention) != 0)
            Count(name, defaultError);
    }
    PlatformCall(const PlatformCall&) = delete;
    PlatformCall& operator=(const PlatformCall&) = delete;

    /// True when the call is to fail; the last error is then set to error().
    bool Fails() const {
        if (!fails_) return false;
        SetLastError(error_);
        return true;
    }

    /// True when the call is to fail; for functions that give their error back in another way.
    bool Faulted() const { return fails_; }
    DWORD error() const { return error_; }

    /// True when the call is to report success and do nothing.
    bool IsIgnored() const { return ignored_; }

    /// `bytes`, or less when a short count is armed for this call.
    DWORD LimitCount(DWORD bytes) const { return bytes < limit_ ? bytes : limit_; }

  private:
    void Count(const char* name, DWORD defaultError);

    const PlatformScope scope_;
    bool fails_ = false;
    bool ignored_ = false;
    DWORD error_ = 0;
    DWORD limit_ = 0xFFFFFFFF;
};

/// Stands around a call out of the platform, into a provider, a module's entry point or an application's
/// callback.
class ProviderBoundary {
  public:
    ProviderBoundary() : saved_(CurrentCallDepth().calls) {
        CallDepth& depth = CurrentCallDepth();
        ++depth.boundaries;
        depth.calls = 0;
    }
    ~ProviderBoundary() {
        CallDepth& depth = CurrentCallDepth();
        --depth.boundaries;
        depth.calls = saved_;
    }
    ProviderBoundary(const ProviderBoundary&) = delete;
    ProviderBoundary& operator=(const ProviderBoundary&) = delete;

  private:
    const unsigned saved_;
};

}  // namespace platform
