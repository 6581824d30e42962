// Being inside: what a thread calls while it runs Winsock, the layer or the base provider is libc's own. The
// same functions that the program calls are called there, on descriptors that are none of the program's.
#pragma once

#include <signal.h>

#include <cerrno>

namespace preload {

struct ThreadState {
    int inside;       // how deep; a thread of the layer's own is inside for ever
    int descriptor;   // the base provider's, of the socket that the call is about
    int kernelError;  // the last error of a call of the kernel on that descriptor
};

extern __thread ThreadState ThisThread __attribute__((tls_model("initial-exec")));

inline bool IsInside() {
    return ThisThread.inside > 0;
}

/// Passes on what the kernel said, and keeps its error when the call was about the descriptor in question:
/// Winsock has fewer errors than the kernel.
template <class Result>
Result Noted(int descriptor, Result result) {
    if (result < 0 && descriptor == ThisThread.descriptor) ThisThread.kernelError = errno;
    return result;
}

/// While a call runs, no handler of the program does: one that makes a call of its own, or leaves by a jump,
/// would find or leave the layer's locks taken. The signals that users end programs with get through: always
/// in a brief call, and in one that may wait for the analyzer if they have no handler.
enum class Signals { Brief, HeldBack };

/// One call of the bridge. The thread can't be cancelled in it, and errno is afterwards what it was.
class EngineCall {
  public:
    explicit EngineCall(int descriptor, Signals signals = Signals::Brief);
    ~EngineCall();
    EngineCall(const EngineCall&) = delete;
    EngineCall& operator=(const EngineCall&) = delete;

    /// The kernel's own error, if it was one that made the call fail.
    static int ErrorOf(int bridgeError) {
        return bridgeError != 0 && ThisThread.kernelError != 0 ? ThisThread.kernelError : bridgeError;
    }

  private:
    const int errno_;
    int cancelState_ = 0;
    sigset_t signals_;
};

/// Blocks every signal but those that tell of a fault in the thread itself; for threads of the layer's own,
/// so that the program's signals reach the program's threads.
void BlockProgramsSignals(sigset_t* before);

}  // namespace preload
