// The stages of the patterns: none, compiling, ready, retired (users are still inside), releasing; see the
// header.
#include "protocols/pattern_gate.h"

#include <thread>

/// Moves from one stage to another whatever the number of users; false when the stage is a different one.
bool PatternGate::ChangeIf(Stage from, Stage to) {
    std::uint32_t word = word_.load();
    while ((word & kStageMask) == from) {
        if (word_.compare_exchange_weak(word, word - from + to)) return true;
    }
    return false;
}

bool PatternGate::BeginCompile() {
    for (;;) {
        if (ChangeIf(kNone, kCompiling)) return true;
        // Retired patterns are still whole: nobody can have taken them for release.
        if ((word_.load() & kStageMask) == kReady || ChangeIf(kRetired, kReady)) return false;
        std::this_thread::yield();
    }
}

/// Counts and looks at once, so that no release can begin in between.
bool PatternGate::Enter() {
    return (word_.fetch_add(kUser) & kStageMask) == kReady;
}

bool PatternGate::Leave() {
    return word_.fetch_sub(kUser) - kUser == kRetired && TakeForRelease();
}

bool PatternGate::Retire() {
    return ChangeIf(kReady, kRetired) && TakeForRelease();
}

/// Only without users, and by one thread alone.
bool PatternGate::TakeForRelease() {
    std::uint32_t retired = kRetired;
    return word_.compare_exchange_strong(retired, kReleasing);
}
