// Classification: for each row a real exchange in shape, cut at every byte, and neighbours that must not
// match.
#include "protocols/protocol_table.h"

#include <gtest/gtest.h>

#include <string>

#include "protocols/compiled_patterns.h"

namespace {

using namespace std::string_literals;

enum class Side { kClient, kServer };

ProtocolSample MakeSample(Side side, const std::string& data, std::uint16_t remotePort) {
    ProtocolSample sample{};
    const auto length = static_cast<std::int32_t>(data.size());
    if (side == Side::kClient) {
        sample.clientLength = length;
        sample.clientData = data.data();
    } else {
        sample.serverLength = length;
        sample.serverData = data.data();
    }
    sample.localPort = 50000;
    sample.remotePort = remotePort;
    return sample;
}

/// The protocol of a sample: by the compiled table, and the same by simulated patterns.
std::uint32_t Classify(ProtocolSample sample) {
    static const auto* simulated = [] {
        auto* patterns = new CompiledPatterns;
        EXPECT_EQ(0, patterns->Compile(ProtocolTable, CompiledPatterns::Engine::kSimulated));
        return patterns;
    }();
    ProtocolSample again = sample;
    EXPECT_EQ(simulated->Classify(again), ClassifyConnection(sample) != 0);
    EXPECT_EQ(again.protocol, sample.protocol);
    return sample.protocol;
}

class ProtocolTableTest : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(0, CompileProtocolPatterns()); }
};

struct Exchange {
    std::uint32_t id;
    Side side;
    std::uint16_t remotePort;
    std::string data;
    std::size_t decidedAt;  // with fewer bytes no row matches, from here on this one does
    std::vector<std::string> neighbours;
};

std::vector<Exchange> Exchanges() {
    constexpr Side c = Side::kClient, s = Side::kServer;
    const std::string bt = "BitTorrent protocol";
    const std::string msn = "x\r\nANS 1 user@example.com 849102291.52 1175\r\n";
    const std::string xmpp = "<?xml?><stream:stream to='example.org' xmlns=\"jabber:client\">";
    const std::string sip = "INVITE sip:bob@x.org SIP/2.0\r\nVia: SIP/2.0/UDP x.org\r\n";
    return {
        {kProtocolHttp, c, 80, "GET / HTTP/1.1\r\nHost: x\r\n\r\n", 3, {"get / HTTP/1.1", " GET /"}},
        {kProtocolHttp, c, 8080, "\r\n\nCONNECT x.org:443 HTTP/1.1\r\n", 10, {"\r\n CONNECT", "CONNEXT"}},
        {kProtocolYm, c, 5050, "YMSG\0\x0b\0\0\0\0\0L"s, 4, {"YMSX", "xYMSG"}},
        {kProtocolYm, c, 5050, "yhoo", 4, {"yho\xcf"}},
        {kProtocolFtp, s, 21, "220 (ftpd 3.0)\r\n", 3, {"221 x", "22 0"}},
        {kProtocolSmtp, s, 2121, "\r\n220 mail.example.org ESMTP\r\n", 5, {"230 x"}},
        {kProtocolSmtp, c, 25, "EHLO mail.example.org\r\n", 4, {"EHL", "EH LO"}},
        {kProtocolSmtp, c, 587, "\nhelo x\r\n", 5, {"hello x\r\n"}},
        {kProtocolBitTorrent, c, 6881, "\023" + bt + "\0\0"s, 20, {"\023bittorrent protocol", "\024" + bt}},
        {kProtocolDirectConnect, s, 411, "$Lock EXTENDEDPROTOCOL Pk=X|", 6, {"$Lock|", "Lock x"}},
        {kProtocolDirectConnect, s, 411, "$MyNick joe|", 8, {"$MyNickx"}},
        {kProtocolIrc, c, 6667, "NICK guest42\r\nUSER g\r\n", 14, {"NICK a\nUSER b\n", "NICK a\rb\r\n"}},
        {kProtocolIrc, s, 6667, "NOTICE AUTH :*** Looking up your hostname\r\n", 11, {"NOTICE * :x"}},
        {kProtocolMsn, c, 1863, "VER 1 MSNP8 CVR0\r\n", 18, {"VER 1 MSNP0 CVR0\r\n", "VER 1 MSNP8 CVR0\n"}},
        {kProtocolMsn, c, 1863, msn, 45, {"ANS 1  1175\r\n", "ANS 1 u x1175\r\n", "ANS 1 u\r\n 1175\r\n"}},
        {kProtocolJabber, c, 5222, xmpp, 52, {"<stream:stream xmlns=jabber", "xmlns='jabber <stream:stream"}},
        {kProtocolGnutella, c, 6346, "GNUTELLA CONNECT/0.6\r\nA: x\r\n", 22, {"GNUTELLA CONNECT/3.6\r\n"}},
        {kProtocolSsh, s, 22, "SSH-2.0-example_9\r\n", 7, {"SSH-3.0-x", "SSH 2.0"}},
        {kProtocolEDonkey, c, 4662, "\xe3Y\0\0\0\x01"s, 6, {"\xe4Y\0\0\0\x01"s, "\xe3Y\0\0\x01\0"s}},
        {kProtocolEDonkey, c, 4662, "\xc5\r\n\0\0\x01"s, 6, {}},
        {kProtocolPop3, s, 110, "+OK ready\r\n", 4, {"+OKAY", "OK x"}},
        {kProtocolPop3, s, 110, "-eRR no\r\n", 5, {"-ERR\r\n"}},
        {kProtocolImap, s, 143, "* OK [CAPABILITY IMAP4rev1] ready\r\n", 4, {"* BAD x", "** OK"}},
        {kProtocolImap, s, 143, "A0012 NOOP\r\n", 10, {"A NOOP", "A1 NOP"}},
        {kProtocolSip, c, 5060, sip, 30, {"INVITE sip:bob@x.org SIP/3.0\r\n", "INVITE tel:1 SIP/2.0\r\n"}},
        {kProtocolVnc, s, 5900, "RFB 003.008\n", 12, {"RFB 000.008\n", "RFB 003.108\n"}},
        {kProtocolNntp, s, 119, "200 news ready\r\n", 16, {"200 x\r\n", "202 news\r\n", "200 x\r\nnews\r\n"}},
        {kProtocolLdap, c, 389, "\x30\x0c\x02\x01\x01\x60\x07\x02\x01\x03\x04\0\x80\0"s, 14, {}},
    };
}

TEST_F(ProtocolTableTest, RecognisesEachRowFromItsDecidingByteOn) {
    for (const Exchange& exchange : Exchanges()) {
        const std::string name = GetProtocolName(exchange.id);
        for (std::size_t length = 0; length <= exchange.data.size(); ++length) {
            const std::string cut = exchange.data.substr(0, length);
            ASSERT_EQ(length < exchange.decidedAt ? 0u : exchange.id,
                      Classify(MakeSample(exchange.side, cut, exchange.remotePort)))
                << name << " at " << length << " of " << exchange.data;
        }
        const Side other = exchange.side == Side::kClient ? Side::kServer : Side::kClient;
        EXPECT_NE(exchange.id, Classify(MakeSample(other, exchange.data, exchange.remotePort))) << name;
        for (const std::string& neighbour : exchange.neighbours) {
            EXPECT_NE(exchange.id, Classify(MakeSample(exchange.side, neighbour, exchange.remotePort)))
                << name << ": " << neighbour;
        }
    }
}

TEST_F(ProtocolTableTest, LongDataIsReadToItsEnd) {
    // What the search for the end of a match takes for one, over and over, before the real one.
    const std::string msn = "ANS 1 user@example.com 849102291.52 1175\r\n";
    const std::string jabber = "<stream:stream xmlns='jabber";
    std::string lines, equals;
    while (lines.size() < 5000)
        lines += "in 12\r\nxmlns='jabber=\r\r\r";
    for (const std::string& filler :
         {std::string(5000, 'x'), lines, std::string(5000, '='), std::string(5000, '\r')}) {
        EXPECT_EQ(0u, Classify(MakeSample(Side::kClient, filler, 1)));
        EXPECT_EQ(kProtocolMsn, Classify(MakeSample(Side::kClient, filler + msn, 1)));
        EXPECT_EQ(kProtocolJabber, Classify(MakeSample(Side::kClient, filler + jabber, 1)));
        // Both match: the earlier row wins wherever it stands.
        EXPECT_EQ(kProtocolMsn, Classify(MakeSample(Side::kClient, filler + jabber + "\n" + msn, 1)));
    }
}

/// A record of this length that holds a client hello as far as the length allows.
std::string TlsHello(unsigned recordLength, int recordMinor, int helloMinor) {
    std::string hello = "\x01\0"s;
    hello += static_cast<char>((recordLength - 4) >> 8);
    hello += static_cast<char>(recordLength - 4);
    hello += '\x03';
    hello += static_cast<char>(helloMinor);
    hello.resize(recordLength, 'r');
    std::string record = "\x16\x03"s;
    record += static_cast<char>(recordMinor);
    record += static_cast<char>(recordLength >> 8);
    record += static_cast<char>(recordLength);
    return record + hello;
}

TEST_F(ProtocolTableTest, TlsHellosByLengthVersionAndCut) {
    constexpr std::size_t kHttpsRow = 18;
    for (const unsigned length : {4u, 5u, 6u, 200u, 1024u, 1025u}) {
        for (int minor = 0; minor <= 4; ++minor) {
            const bool good = length >= 6 && length <= 1024 && minor <= 3;
            const std::string record = TlsHello(length, minor, 3);
            // The bytes behind a record that is too short are those of a good one.
            const std::string data = record + "\x03\x03";
            EXPECT_EQ(good ? kProtocolHttps : 0u, Classify(MakeSample(Side::kClient, data, 443)));
            EXPECT_EQ(good ? kProtocolSsl : 0u, Classify(MakeSample(Side::kClient, data, 8443)));
            const bool undecided = length <= 1024 && minor <= 3;
            for (std::size_t cut = 0; cut < record.size(); ++cut) {
                const std::string part = record.substr(0, cut);
                const ProtocolSample sample = MakeSample(Side::kClient, part, 443);
                ASSERT_EQ(cut >= 5 && undecided ? 1 : 0, TestProtocolRow(kHttpsRow, sample))
                    << length << " " << minor << " cut at " << cut;
            }
        }
    }
    for (const std::size_t damaged : {0u, 1u, 5u, 7u, 8u, 9u}) {
        std::string record = TlsHello(200, 1, 3);
        record[damaged] ^= 0x40;
        EXPECT_EQ(0u, Classify(MakeSample(Side::kClient, record, 443))) << damaged;
    }
    EXPECT_EQ(0u, Classify(MakeSample(Side::kClient, TlsHello(200, 1, 4), 443)));
    EXPECT_EQ(0u, Classify(MakeSample(Side::kServer, TlsHello(200, 1, 3), 443)));
}

TEST_F(ProtocolTableTest, Ssl2HellosAndLdapMessages) {
    const struct {
        std::string data;
        std::uint32_t wanted;
    } kCases[] = {
        {"\x80\x03\x01\x03\x01"s, kProtocolSsl},
        {"\x80\x00\x01\x03\x01"s, kProtocolSsl},  // the record needn't hold what is read behind its header
        {"\x84\x00\x01"s + std::string(1023, 'x'), kProtocolSsl},
        {"\x84\x01\x01"s + std::string(1024, 'x'), 0},  // 1025 bytes
        {"\x90\x03\x01\x03\x01"s, 0},                   // 4099 bytes
        {"\x80\x04\x01\x03\x01"s, 0},                   // one byte short
        {"\x80\x02\x01\x03"s, 0},                       // complete, but shorter than what is read
        {"\x80\x03\x02\x03\x01"s, 0},
        {"\x80", 0},
        // LDAP: every form of the length, with none of them one byte more or less.
        {"\x30\x05\x02\x01\x01\x63\x00"s, kProtocolLdap},
        {"\x30\x82\x00\x05\x02\x01\x01\x77\x00"s, kProtocolLdap},
        {"\x30\x84\x00\x00\x00\x05\x02\x01\x01\x68\x00"s, kProtocolLdap},
        {"\x30\x0a\x02\x84\x00\x00\x00\x01\x01\x66\x82\x00\x00"s, 0},
        {"\x30\x0b\x02\x84\x00\x00\x00\x01\x01\x66\x82\x00\x00"s, kProtocolLdap},
        {"\x30\x08\x02\x04\x7f\xff\xff\xff\x60\x00"s, kProtocolLdap},
        {"\x30\x04\x02\x00\x60\x00"s, kProtocolLdap},
        {"\x30\x09\x02\x05\x00\x00\x00\x00\x01\x60\x00"s, 0},  // a message id of 5 bytes
        {"\x30\x81\x05\x02\x01\x01\x60\x00"s, 0},
        {"\x30\x83\x00\x00\x05\x02\x01\x01\x60\x00"s, 0},
        {"\x30\x80\x02\x01\x01\x60\x00"s, 0},
        {"\x30\x05\x02\x01\x01\x60\x01"s, 0},  // the operation reaches past the end
        {"\x30\x05\x04\x01\x01\x60\x00"s, 0},
        {"\x30\x05\x02\x01\x01\x61\x00"s, 0},  // an answer
        {"\x31\x05\x02\x01\x01\x60\x00"s, 0},
        {"\x30\x84\xff\xff\xff\xff\x02\x01\x01\x60\x00"s, 0},
    };
    for (const auto& test : kCases) {
        EXPECT_EQ(test.wanted, Classify(MakeSample(Side::kClient, test.data, 389)))
            << testing::PrintToString(test.data);
        if (test.wanted != kProtocolLdap) continue;
        EXPECT_EQ(0u, Classify(MakeSample(Side::kClient, test.data + "\0"s, 389)));
        EXPECT_EQ(0u, Classify(MakeSample(Side::kClient, test.data.substr(0, test.data.size() - 1), 389)));
    }
}

TEST_F(ProtocolTableTest, SamplesWithBothSidesOrNone) {
    const std::string unfinished = "NICK gue";
    ProtocolSample sample = MakeSample(Side::kClient, unfinished, 6667);
    sample.serverData = "NOTICE AUTH :x";
    sample.serverLength = 14;
    EXPECT_EQ(kProtocolIrc, Classify(sample))
        << "the client's bytes are undecided, so the server's are asked";
    sample.clientData = "PICK gue";
    EXPECT_EQ(0u, Classify(sample)) << "the client's bytes rule the row out";
    sample.clientLength = -5;
    EXPECT_EQ(kProtocolIrc, Classify(sample)) << "a negative length is no data";
    sample.serverLength = -1;
    sample.protocol = 77;
    EXPECT_EQ(0, ClassifyConnection(sample));
    EXPECT_EQ(77u, sample.protocol) << "untouched when nothing matches";
}

TEST_F(ProtocolTableTest, NamesAndOrderOfTheRows) {
    std::string names;
    for (const ProtocolEntry* entry = ProtocolTable; entry->id != kProtocolTableEnd; ++entry) {
        names += GetProtocolName(entry->id) + " "s;
    }
    EXPECT_EQ(
        "HTTP Y!M FTP SMTP BitTorrent DirectConnect IRC MSN Jabber Gnutella SSH EDonkey POP3 IMAP SIP VNC "
        "NNTP LDAP HTTPS SSL ",
        names);
    EXPECT_STREQ("NONE", GetProtocolName(0));
    EXPECT_STREQ("DOOM3", GetProtocolName(64));
    for (const std::uint32_t unknown : {3u, 0x200000u, 0x80000000u, 0xFFFFFFFFu}) {
        EXPECT_STREQ("UNKNOWN", GetProtocolName(unknown));
    }
}

TEST(CompiledPatterns, PortsFlagsAndABadPattern) {
    const auto noValidator = ProtocolValidator{nullptr};
    const std::string manyEdges(70, 'z');
    const ProtocolEntry table[] = {
        {1, {"ab", kRegFirstMatch}, {nullptr, 0}, 7, -1, noValidator},
        {2, {"ab", 0}, {nullptr, 0}, -1, -1, noValidator},
        // Neither can be made deterministic within bounds: too many states, too many edges.
        {32, {".*q.................", kRegFirstMatch}, {nullptr, 0}, -1, -1, noValidator},
        {64, {manyEdges.c_str(), kRegFirstMatch}, {nullptr, 0}, -1, -1, noValidator},
        {16, {".*=ab", kRegFirstMatch}, {"ok", kRegFirstMatch}, -1, -1, noValidator},
        {4, {"cd", kRegFirstMatch}, {"a**", kRegFirstMatch}, -1, -1, noValidator},
        {8, {"c", kRegFirstMatch}, {nullptr, 0}, -1, -1, noValidator},
        {kProtocolTableEnd, {nullptr, 0}, {nullptr, 0}, -1, -1, noValidator},
    };
    CompiledPatterns patterns;
    testing::internal::CaptureStderr();
    EXPECT_EQ(-22, patterns.Compile(table));
    EXPECT_EQ("Could not compile server regex 'a**' for protocol BitTorrent\n",
              testing::internal::GetCapturedStderr());
    const auto classify = [&](const std::string& data, std::uint16_t localPort) {
        ProtocolSample sample = MakeSample(Side::kClient, data, 1);
        sample.localPort = localPort;
        patterns.Classify(sample);
        return sample.protocol;
    };
    const std::string greeting = "ok";
    ProtocolSample both = MakeSample(Side::kServer, greeting, 1);
    both.clientData = "xy";
    both.clientLength = 2;
    EXPECT_TRUE(patterns.Classify(both)) << "a client that may go on to match leaves it to the server";
    EXPECT_EQ(16u, both.protocol);
    EXPECT_EQ(1u, classify("abc", 7));
    EXPECT_EQ(32u, classify("qqq" + std::string(15, 'x'), 7));
    EXPECT_EQ(0u, classify("xxq" + std::string(15, 'x'), 7));
    EXPECT_EQ(64u, classify(manyEdges + "y", 7));
    EXPECT_EQ(0u, classify("abc", 8)) << "the second row wants the whole data";
    EXPECT_EQ(2u, classify("ab", 8));
    EXPECT_EQ(4u, classify("cd", 8)) << "the good side of the row with the bad pattern";
    EXPECT_EQ(0u, classify("cx", 8)) << "the rows after it stay uncompiled";
}

}  // namespace
