// The critical section as a lockable object, and its scoped holder. Re-entrant, as Windows' critical sections
// are. Leaf rules and nesting orders are stated where each section is declared.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include "base/thread_annotations.h"

/// A CRITICAL_SECTION whose use clang can check. Initialised and deleted by hand, since the library's global
/// sections live exactly from attach to detach, not as long as static storage does.
class QX_CAPABILITY("critical section") CriticalSection {
  public:
    CriticalSection() = default;
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

    void Initialize() { InitializeCriticalSection(&section_); }
    void Delete() { DeleteCriticalSection(&section_); }
    void Enter() QX_ACQUIRE() { EnterCriticalSection(&section_); }
    void Leave() QX_RELEASE() { LeaveCriticalSection(&section_); }

  private:
    CRITICAL_SECTION section_;
};

/// A critical section that initialises itself, for members of ordinary objects.
class QX_CAPABILITY("critical section") OwnedCriticalSection : public CriticalSection {
  public:
    OwnedCriticalSection() { Initialize(); }
    ~OwnedCriticalSection() { Delete(); }
};

/// Scoped holder of a critical section; leaves it on destruction when it is entered.
class QX_SCOPED_CAPABILITY Locker {
  public:
    explicit Locker(CriticalSection& section) QX_ACQUIRE(section) : section_(section), entered_(1) {
        section_.Enter();
    }

    /// Takes the section only when `enterNow` is set; `Enter` takes it later.
    Locker(CriticalSection& section, bool enterNow) QX_NO_THREAD_SAFETY_ANALYSIS : section_(section),
                                                                                   entered_(0) {
        if (enterNow) Enter();
    }

    virtual ~Locker() QX_RELEASE() { LeaveIfEntered(); }

    Locker(const Locker&) = delete;
    Locker& operator=(const Locker&) = delete;

    void Enter() QX_ACQUIRE() {
        section_.Enter();
        entered_ = 1;
    }

    void Leave() QX_RELEASE() { LeaveIfEntered(); }

  private:
    void LeaveIfEntered() QX_NO_THREAD_SAFETY_ANALYSIS {
        if (entered_ == 0) return;
        entered_ = 0;
        section_.Leave();
    }

    CriticalSection& section_;
    unsigned char entered_;
};
