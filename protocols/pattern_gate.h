// Who may touch patterns that come and go: one thread compiles, any number classify, and the last of those
// that classify releases what a clean-up has retired. One atomic word; classifying and releasing never wait,
// because a clean-up may run while the process exits, when other threads have been ended in the middle of
// anything.
//
// Usable before and after static construction, and from any thread.
#pragma once

#include <atomic>
#include <cstdint>

class PatternGate {
  public:
    /// Returns true to the one caller that shall compile and then call Publish or Abandon; false when the
    /// patterns are ready. Waits while another thread compiles or releases.
    bool BeginCompile();

    void Publish() { Change(kCompiling, kReady); }
    void Abandon() { Change(kCompiling, kNone); }

    /// Returns true when the patterns may be used until Leave. Every Enter has its Leave, whatever it
    /// returned.
    bool Enter();

    /// When it returns true the caller shall release the patterns and then call Released.
    bool Leave();

    /// Ends the use of the patterns, if there are any. When it returns true the caller shall release them and
    /// then call Released; else the last one to leave does, or there is nothing to release.
    bool Retire();

    void Released() { Change(kReleasing, kNone); }

  private:
    enum Stage : std::uint32_t { kNone, kCompiling, kReady, kRetired, kReleasing };
    static constexpr std::uint32_t kStageMask = 7;
    static constexpr std::uint32_t kUser = 8;

    void Change(Stage from, Stage to) { word_.fetch_add(std::uint32_t{to} - std::uint32_t{from}); }
    bool ChangeIf(Stage from, Stage to);
    bool TakeForRelease();

    std::atomic<std::uint32_t> word_{kNone};  // the stage, and kUser for each user
};
