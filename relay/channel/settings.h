// What the machine's administrator, and the product's service, set for the layer. Read when first asked for
// and kept for some minutes. Any thread, no lock: threads that find a value stale all read the same.
#pragma once

/// The analyzer's port on the loopback interface, in host order. Never fails: what can't be read, or is out
/// of range, leaves the last known port.
unsigned int GetRelayPort();

/// Whether connections that nobody could be asked about are to be refused. False when nothing is set.
bool StopsActivityOnFailConnect();
