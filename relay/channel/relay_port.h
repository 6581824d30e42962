// The port of the analyzer on the loopback interface, as the product's service configures it, cached for 300
// seconds. Any thread, no lock: two threads that find the cache stale at the same moment both read, with the
// same result. The cache lives as long as the loaded library.
#pragma once

/// The analyzer's port in host order. Never fails: whatever can't be read leaves the cached value (at first
/// 48191).
unsigned int GetRelayPort();
