// Calendar time as the layer's caches use it. Any thread, no lock.
#pragma once

/// Seconds since 1970-01-01 00:00 UTC by the system clock, which may be set forward and back at any time.
long long CalendarSeconds();
