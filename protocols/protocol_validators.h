// Validators for protocols whose first message is binary. They look only at the client's bytes, ignore the
// verdict they are given, and judge short or malformed data without an error. Safe on any thread.
#pragma once

#include "protocols/protocol_table.h"

/// Exactly one LDAP message that is a request: kMatch, else kNoMatch; never undecided.
int IsLdapRequest(const ProtocolSample& sample, int verdict);

/// A TLS client hello in one record of at most 1024 bytes, or an SSL 2.0 client hello: kMatch. kUndecided
/// while the record is still arriving, else kNoMatch.
int IsTlsClientHello(const ProtocolSample& sample, int verdict);
