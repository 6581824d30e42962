// The protocols that are recognised from the first bytes of a connection: a fixed table of 20 rows, each with
// patterns for what the client or the server says first, ports and a validator for binary first messages.
//
// Threads: any number of threads may classify at once, also beside a compilation or a release. Nothing here
// blocks but CompileProtocolPatterns, which waits for a compilation that another thread has begun.
#pragma once

#include <cstddef>
#include <cstdint>

/// Protocol ids are single bits; 0 is "not yet classified".
enum ProtocolId : std::uint32_t {
    kProtocolNone = 0,
    kProtocolHttp = 0x1,
    kProtocolYm = 0x2,
    kProtocolBitTorrent = 0x4,
    kProtocolFtp = 0x8,
    kProtocolSmtp = 0x10,
    kProtocolDirectConnect = 0x20,
    kProtocolDoom3 = 0x40,  ///< has a name but no row: never recognised
    kProtocolIrc = 0x80,
    kProtocolMsn = 0x100,
    kProtocolJabber = 0x200,
    kProtocolGnutella = 0x400,
    kProtocolSsh = 0x800,
    kProtocolEDonkey = 0x1000,
    kProtocolPop3 = 0x2000,
    kProtocolImap = 0x4000,
    kProtocolSip = 0x8000,
    kProtocolVnc = 0x10000,
    kProtocolNntp = 0x20000,
    kProtocolLdap = 0x40000,
    kProtocolSsl = 0x80000,
    kProtocolHttps = 0x100000,
    kProtocolTableEnd = 0xFFFFFFFF,  ///< ends the table
};

/// One attempt to classify. Filled by the caller, who owns the bytes; a length below 0 counts as 0.
struct ProtocolSample {
    std::int32_t clientLength;
    const void* clientData;
    std::int32_t serverLength;
    const void* serverData;
    std::uint16_t localPort;   ///< host order
    std::uint16_t remotePort;  ///< host order
    std::uint32_t protocol;    ///< out: the id of the row that matched; the caller sets it to 0
};

/// Judges a sample in place of, or after, the patterns of its row; gets their verdict and returns the final
/// one.
using ProtocolValidator = int (*)(const ProtocolSample& sample, int verdict);

struct ProtocolRule {
    const char* pattern;  ///< null when the row doesn't judge this side
    unsigned flags;       ///< of RegexpMatch
};

struct ProtocolEntry {
    std::uint32_t id;
    ProtocolRule client;      ///< for what the side that opened the connection sends
    ProtocolRule server;      ///< for what it is answered
    std::int32_t localPort;   ///< -1: any
    std::int32_t remotePort;  ///< -1: any
    ProtocolValidator validator;
};

inline constexpr std::size_t kProtocolRowCount = 20;

/// The table; its order decides ties. One entry more than kProtocolRowCount, with the id kProtocolTableEnd.
extern const ProtocolEntry ProtocolTable[kProtocolRowCount + 1];

/// Compiles every pattern of the table; the first call in a process, or after FreeProtocolPatterns, does so,
/// any other returns 0 when the patterns are ready. Returns 0 or the first error of RegexpCompile, after a
/// line on the standard error stream; the rows after it then stay uncompiled and match nothing.
int CompileProtocolPatterns();

/// Releases every compiled pattern, so that a later CompileProtocolPatterns compiles again. Never waits:
/// while classifications are in flight the last of them releases.
void FreeProtocolPatterns();

/// Returns 1 and sets the sample's protocol when a row matched; otherwise 0, with the protocol untouched.
/// Looks at nothing but this sample: every call starts from the first byte.
std::int32_t ClassifyConnection(ProtocolSample& sample);

/// The verdict of one row (kMatch, kUndecided, kNoMatch) on a sample, which is left as it is. For diagnosis.
int TestProtocolRow(std::size_t row, const ProtocolSample& sample);

/// Constant text; "UNKNOWN" for ids that are not listed.
const char* GetProtocolName(std::uint32_t id);
