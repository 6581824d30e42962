// Part of native builds only: lets whoever starts the program make its clock run faster than real time, so
// that long waits can be watched in short time. QX_CLOCK_SCALE=20 makes a minute of the program last three
// seconds.
#include "platform/testing/clock.h"

#include <cstdlib>

namespace {

struct ClockFromEnvironment {
    ClockFromEnvironment() {
        const char* const scale = std::getenv("QX_CLOCK_SCALE");
        const double rate = scale ? std::atof(scale) : 0;
        if (rate > 0 && rate != 1) platform::SetClockRate(rate);
    }
};

const ClockFromEnvironment g_clockFromEnvironment;

}  // namespace
