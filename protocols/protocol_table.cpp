// The table itself, the names, and the process-wide compiled patterns behind their gate.
#include "protocols/protocol_table.h"

#include <new>

#include "protocols/compiled_patterns.h"
#include "protocols/pattern_gate.h"
#include "protocols/protocol_validators.h"

namespace {

constexpr unsigned kExact = kRegFirstMatch;
constexpr unsigned kAnyCase = kRegFirstMatch | kRegIcase;
constexpr ProtocolRule kNoRule = {nullptr, 0};
constexpr std::int32_t kAnyPort = -1;

constexpr ProtocolEntry ByClient(std::uint32_t id, const char* pattern, unsigned flags = kAnyCase) {
    return {id, {pattern, flags}, kNoRule, kAnyPort, kAnyPort, nullptr};
}

constexpr ProtocolEntry ByServer(std::uint32_t id, const char* pattern, std::int32_t remotePort = kAnyPort) {
    return {id, kNoRule, {pattern, kAnyCase}, kAnyPort, remotePort, nullptr};
}

constexpr ProtocolEntry ByEither(std::uint32_t id, const char* client, const char* server) {
    return {id, {client, kAnyCase}, {server, kAnyCase}, kAnyPort, kAnyPort, nullptr};
}

constexpr ProtocolEntry ByValidator(std::uint32_t id, ProtocolValidator validator,
                                    std::int32_t remotePort = kAnyPort) {
    return {id, kNoRule, kNoRule, kAnyPort, remotePort, validator};
}

struct ProtocolName {
    std::uint32_t id;
    const char* name;
};

constexpr ProtocolName kProtocolNames[] = {
    {kProtocolNone, "NONE"},
    {kProtocolHttp, "HTTP"},
    {kProtocolYm, "Y!M"},
    {kProtocolBitTorrent, "BitTorrent"},
    {kProtocolFtp, "FTP"},
    {kProtocolSmtp, "SMTP"},
    {kProtocolDirectConnect, "DirectConnect"},
    {kProtocolDoom3, "DOOM3"},
    {kProtocolIrc, "IRC"},
    {kProtocolMsn, "MSN"},
    {kProtocolJabber, "Jabber"},
    {kProtocolGnutella, "Gnutella"},
    {kProtocolSsh, "SSH"},
    {kProtocolEDonkey, "EDonkey"},
    {kProtocolPop3, "POP3"},
    {kProtocolImap, "IMAP"},
    {kProtocolSip, "SIP"},
    {kProtocolVnc, "VNC"},
    {kProtocolNntp, "NNTP"},
    {kProtocolLdap, "LDAP"},
    {kProtocolSsl, "SSL"},
    {kProtocolHttps, "HTTPS"},
};

// Written by the thread that compiles or releases under the gate, read between its Enter and Leave.
PatternGate Gate;
CompiledPatterns* Patterns = nullptr;

void ReleasePatterns() {
    delete Patterns;
    Patterns = nullptr;
    Gate.Released();
}

/// Keeps the patterns for one classification.
class PatternUse {
  public:
    PatternUse() : patterns_(Gate.Enter() ? Patterns : nullptr) {}
    ~PatternUse() {
        if (Gate.Leave()) ReleasePatterns();
    }
    PatternUse(const PatternUse&) = delete;
    PatternUse& operator=(const PatternUse&) = delete;

    /// Null while none are compiled: then only validators can recognise anything.
    const CompiledPatterns* Get() const { return patterns_; }

  private:
    const CompiledPatterns* const patterns_;
};

}  // namespace

const ProtocolEntry ProtocolTable[kProtocolRowCount + 1] = {
    ByClient(kProtocolHttp, R"([\r\n]*(GET|POST|CONNECT|OPTIONS|PUT|DELETE|HEAD|TRACE))", kExact),
    ByClient(kProtocolYm, "(YMSG|YPNS|YHOO)"),
    ByServer(kProtocolFtp, R"([\r\n]*220)", 21),
    ByEither(kProtocolSmtp, R"([\r\n]*(HELO|EHLO))", R"([\r\n]*220)"),
    ByClient(kProtocolBitTorrent, R"(\x13BitTorrent protocol)", kExact),
    ByServer(kProtocolDirectConnect, "($mynick|$lock|$key) "),
    ByEither(kProtocolIrc, R"(((nick|user)[^\r\n]*\r\n))", "NOTICE AUTH"),
    ByClient(kProtocolMsn, R"((.*ver [0-9]+ msnp[1-9][0-9]? [^\r\n]*cvr0\r\n))"
                           R"(|(.*(usr|ans) 1 [!-~]+ [0-9. 0]+\r\n))"),
    ByClient(kProtocolJabber, R"(.*<stream:stream.*xmlns=['"]jabber)"),
    ByClient(kProtocolGnutella, R"([\r\n]*GNUTELLA CONNECT/[012]\.[0-9]\r\n)"),
    ByServer(kProtocolSsh, R"(SSH-[12]\.[0-9])"),
    ByClient(kProtocolEDonkey, R"((\xe3|\xc5)....\x01)"),
    ByServer(kProtocolPop3, R"((\+ok |-err ))"),
    ByServer(kProtocolImap, R"((\* ok|a[0-9]+ noop))"),
    ByClient(kProtocolSip, R"((INVITE|REGISTER|CANCEL) sip:[^\r\n]* SIP/[0-2]\.[0-9][^\r\n]*\r\n)"),
    ByServer(kProtocolVnc, R"(RFB 00[1-9]\.00[0-9]\n)"),
    ByServer(kProtocolNntp, R"(20[01][^\r\n]*news[^\r\n]*\r\n)"),
    ByValidator(kProtocolLdap, IsLdapRequest),
    ByValidator(kProtocolHttps, IsTlsClientHello, 443),
    ByValidator(kProtocolSsl, IsTlsClientHello),
    {kProtocolTableEnd, kNoRule, kNoRule, kAnyPort, kAnyPort, nullptr},
};

int CompileProtocolPatterns() {
    if (!Gate.BeginCompile()) return 0;
    Patterns = new (std::nothrow) CompiledPatterns;
    if (Patterns == nullptr) {
        Gate.Abandon();
        return kRegNoMemory;
    }
    const int error = Patterns->Compile(ProtocolTable);
    Gate.Publish();  // after an error too: the rows before it are good
    return error;
}

void FreeProtocolPatterns() {
    if (Gate.Retire()) ReleasePatterns();
}

std::int32_t ClassifyConnection(ProtocolSample& sample) {
    const PatternUse use;
    if (use.Get() != nullptr) return use.Get()->Classify(sample) ? 1 : 0;
    for (std::size_t row = 0; row < kProtocolRowCount; ++row) {
        if (JudgeBeyondPatterns(ProtocolTable[row], sample, kNoMatch) != kMatch) continue;
        sample.protocol = ProtocolTable[row].id;
        return 1;
    }
    return 0;
}

int TestProtocolRow(std::size_t row, const ProtocolSample& sample) {
    if (row >= kProtocolRowCount) return kNoMatch;
    const PatternUse use;
    if (use.Get() == nullptr) return JudgeBeyondPatterns(ProtocolTable[row], sample, kNoMatch);
    RegMatcher matcher;
    return use.Get()->TestRow(row, sample, matcher);
}

const char* GetProtocolName(std::uint32_t id) {
    for (const ProtocolName& known : kProtocolNames) {
        if (known.id == id) return known.name;
    }
    return "UNKNOWN";
}
