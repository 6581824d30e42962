// What tests do to the clock. A test that changed it puts it back with ResetClock.
#pragma once

#include "platform/kernel/clock_control.h"

namespace platform {

/// A stopped or faster clock for one test.
class ScopedClockRate {
  public:
    explicit ScopedClockRate(double factor) { SetClockRate(factor); }
    ~ScopedClockRate() { ResetClock(); }
    ScopedClockRate(const ScopedClockRate&) = delete;
    ScopedClockRate& operator=(const ScopedClockRate&) = delete;
};

}  // namespace platform
