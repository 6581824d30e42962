// Calls that may fault: what __try { f(); } __except (EXCEPTION_EXECUTE_HANDLER) { } is elsewhere.
//
// Any thread may call. Guards nest; the innermost one of the faulting thread recovers. No destructor inside
// the guarded callable runs after a fault, so locks and other holders are taken OUTSIDE of it. The callable
// throws no C++ exception (one that leaves it ends the process).
#pragma once

#include <windows.h>

#include <memory>
#include <type_traits>

/// Runs `function(argument)`. 0 when it returned; 1 when a structured exception that nothing inside handled
/// came out of it, its code stored to `*code`.
extern "C" int GuardThunk(void (*function)(void*), void* argument, DWORD* code);

/// Makes the guard page of the calling thread's stack usable again; called for every recovered stack
/// overflow.
extern "C" void RestoreStackGuard();

/// Runs `callable()`: true when it returned, false when it faulted; `*code`, when asked for, is the exception
/// code, or 0.
template <class Callable>
bool GuardedCall(Callable&& callable, DWORD* code = nullptr) {
    using Target = std::remove_reference_t<Callable>;
    DWORD seen = 0;
    const int faulted =
        GuardThunk([](void* target) noexcept { (*static_cast<Target*>(target))(); },
                   const_cast<void*>(static_cast<const void*>(std::addressof(callable))), &seen);
    if (faulted != 0 && seen == EXCEPTION_STACK_OVERFLOW) RestoreStackGuard();
    if (code != nullptr) *code = seen;
    return faulted == 0;
}
