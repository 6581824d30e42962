// The packets; see the header.
#include "bench/protocols/first_packets.h"

namespace {

using namespace std::string_literals;

/// Bytes without pattern; the first is a letter that begins no protocol.
std::string Noise(std::size_t size, std::uint32_t seed) {
    std::string noise = "Z";
    while (noise.size() < size) {
        seed = seed * 1664525u + 1013904223u;
        noise += static_cast<char>(seed >> 24);
    }
    return noise;
}

std::string Repeat(const std::string& text, std::size_t size) {
    std::string all;
    while (all.size() < size)
        all += text;
    all.resize(size);
    return all;
}

/// A handshake record of `length` bytes with one client hello in it.
std::string Hello(std::size_t length) {
    std::string record = "\x16\x03\x01"s;
    record += static_cast<char>(length >> 8);
    record += static_cast<char>(length);
    record += "\x01\0"s;
    record += static_cast<char>((length - 4) >> 8);
    record += static_cast<char>(length - 4);
    record +=
        "\x03\x03"s + Noise(32, 7) + " " + Noise(32, 8) + "\0\x08\x13\x01\x13\x02\xc0\x2b\xc0\x2f\x01\0"s;
    record += "\0\0\0\x10\0\x0e\0\0\x0b"s + "example.org";
    record.resize(length + 5, '\0');
    return record;
}

const std::string kBrowser =
    "Host: www.example.org\r\nUser-Agent: Browser/5.0 (X11; Linux x86_64; rv:115.0) Engine/20100101\r\n"
    "Accept: text/html,application/xhtml+xml,application/xml;q=0.9,*/*;q=0.8\r\nAccept-Language: "
    "en-US,en;q=0.5\r\n"
    "Accept-Encoding: gzip, deflate\r\nConnection: keep-alive\r\n";
const std::string kSipHeaders =
    "Via: SIP/2.0/UDP pc33.example.org;branch=z9hG4bK776\r\nMax-Forwards: 70\r\nTo: Bob "
    "<sip:bob@example.org>\r\n"
    "From: Alice <sip:alice@example.org>;tag=1928301774\r\nCall-ID: a84b4c76e66710@pc33.example.org\r\n"
    "CSeq: 314159 INVITE\r\nContact: <sip:alice@pc33.example.org>\r\nContent-Length: 0\r\n\r\n";
const std::string kLogLine = "2026-11-22 20:00:00 INFO worker: request 17 done in 12 ms\r\n";
const std::string kXmlItem = "<item id='1'><name>abc</name><streams>2</streams></item>";

std::vector<FirstPacket> FromClients() {
    const auto packet = [](const char* name, std::uint16_t port, std::string data, std::uint32_t wanted) {
        return FirstPacket{name, false, port, std::move(data), wanted};
    };
    return {
        packet("http-get", 80, "GET /index.html HTTP/1.1\r\n" + kBrowser + "\r\n", kProtocolHttp),
        packet("http-post", 80, "POST /form HTTP/1.1\r\n" + kBrowser + "\r\n" + Repeat("field=value&", 120),
               kProtocolHttp),
        packet("http-connect", 8080, "CONNECT example.org:443 HTTP/1.1\r\nHost: example.org:443\r\n\r\n",
               kProtocolHttp),
        packet("http-head", 80, "HEAD / HTTP/1.0\r\n\r\n", kProtocolHttp),
        packet("http-options-crlf", 80, "\r\nOPTIONS * HTTP/1.1\r\nHost: x\r\n\r\n", kProtocolHttp),
        packet("http-get-1400", 80,
               Repeat("GET /a HTTP/1.1\r\n" + kBrowser + "Cookie: " + Repeat("k=0123456789abcdef; ", 1400),
                      1400),
               kProtocolHttp),
        packet("smtp-ehlo", 25, "EHLO mail.example.org\r\n", kProtocolSmtp),
        packet("smtp-helo-lower", 587, "helo localhost\r\n", kProtocolSmtp),
        packet("bittorrent", 6881,
               "\x13"
               "BitTorrent protocol\0\0\0\0\0\x10\0\x05"s +
                   Noise(40, 1),
               kProtocolBitTorrent),
        packet("irc-nick", 6667, "NICK guest42\r\nUSER guest 0 * :Guest\r\n", kProtocolIrc),
        packet("irc-user", 6667, "user a b c :d\r\n", kProtocolIrc),
        packet("msn-ver", 1863, "VER 1 MSNP8 CVR0\r\n", kProtocolMsn),
        packet("msn-ans", 1863, "ANS 1 user@example.com 849102291.520491113 11752013\r\n", kProtocolMsn),
        packet("jabber", 5222,
               "<?xml version='1.0'?><stream:stream to='example.org' xmlns='jabber:client' "
               "xmlns:stream='http://etherx.jabber.org/streams' version='1.0'>",
               kProtocolJabber),
        packet("gnutella", 6346, "GNUTELLA CONNECT/0.6\r\nUser-Agent: test/1.0\r\nX-Ultrapeer: False\r\n\r\n",
               kProtocolGnutella),
        packet("edonkey", 4662, "\xe3\x59\0\0\0\x01\x10"s + Noise(83, 2), kProtocolEDonkey),
        packet("sip-invite", 5060, "INVITE sip:bob@example.org SIP/2.0\r\n" + kSipHeaders, kProtocolSip),
        packet("sip-register", 5060, "REGISTER sip:registrar.example.org SIP/2.0\r\n" + kSipHeaders,
               kProtocolSip),
        packet("ymsg", 5050, "YMSG\0\x0b\0\0\0\0\0L\0\0\0\0\0\0\0\0"s, kProtocolYm),
        packet("tls-200", 443, Hello(200), kProtocolHttps),
        packet("tls-512", 443, Hello(512), kProtocolHttps),
        packet("tls-512-8443", 8443, Hello(512), kProtocolSsl),
        packet("tls-1500", 443, Hello(1500), kProtocolNone),
        packet("tls-first-100", 443, Hello(512).substr(0, 100), kProtocolNone),
        packet("ssl2-hello", 443, "\x80\x2e\x01\x03\x01\0\x15\0\0\0\x10"s + Noise(37, 3), kProtocolHttps),
        packet("ldap-bind", 389, "\x30\x0c\x02\x01\x01\x60\x07\x02\x01\x03\x04\0\x80\0"s, kProtocolLdap),
        packet("ssh-client", 22, "SSH-2.0-example_9.2p1\r\n", kProtocolNone),
        packet("redis", 6379, "*1\r\n$4\r\nPING\r\n", kProtocolNone),
        packet("postgres", 5432, "\0\0\0\x29\0\x03\0\0user\0alice\0database\0test\0\0"s, kProtocolNone),
        packet("mqtt", 1883, "\x10\x16\0\x04MQTT\x04\x02\0\x3c\0\x0a"s + "client-001", kProtocolNone),
        packet("dns-tcp", 53,
               "\0\x1d\x12\x34\x01\0\0\x01\0\0\0\0\0\0\x07"s + "example\x03" + "org\0\0\x01\0\x01"s,
               kProtocolNone),
        packet("h2-preface", 80, "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + Noise(30, 4), kProtocolNone),
        packet("noise-64", 4000, Noise(64, 5), kProtocolNone),
        packet("noise-512", 4000, Noise(512, 6), kProtocolNone),
        packet("noise-1400", 4000, Noise(1400, 9), kProtocolNone),
        packet("zero-1400", 4000, std::string(1400, '\0'), kProtocolNone),
        packet("text-1400", 4000, Repeat(kLogLine, 1400), kProtocolNone),
        packet("xml-1400", 4000, Repeat("<?xml version='1.0'?>" + Repeat(kXmlItem, 1400), 1400),
               kProtocolNone),
        packet("json-1400", 4000, Repeat("{\"name\": \"value\", \"n\": 12345, \"list\": [1, 2, 3]}, ", 1400),
               kProtocolNone),
    };
}

std::vector<FirstPacket> FromServers() {
    const auto packet = [](const char* name, std::uint16_t port, std::string data, std::uint32_t wanted) {
        return FirstPacket{name, true, port, std::move(data), wanted};
    };
    return {
        packet("ftp-banner", 21, "220 (ftpd 3.0.3)\r\n", kProtocolFtp),
        packet("smtp-banner", 25, "220 mail.example.org ESMTP ready\r\n", kProtocolSmtp),
        packet("directconnect", 411, "$Lock EXTENDEDPROTOCOLABCABCABCABCABCABC Pk=ABCABCABC|",
               kProtocolDirectConnect),
        packet("irc-notice", 6667, "NOTICE AUTH :*** Looking up your hostname...\r\n", kProtocolIrc),
        packet("ssh-banner", 22, "SSH-2.0-example_9.2p1\r\n", kProtocolSsh),
        packet("pop3", 110, "+OK example ready.\r\n", kProtocolPop3),
        packet("imap", 143,
               "* OK [CAPABILITY IMAP4rev1 SASL-IR LOGIN-REFERRALS ID ENABLE IDLE AUTH=PLAIN] ready.\r\n",
               kProtocolImap),
        packet("vnc", 5900, "RFB 003.008\n", kProtocolVnc),
        packet("nntp", 119, "200 news.example.org server 2.7.1 ready (posting ok)\r\n", kProtocolNntp),
        packet("nntp-no-news", 119, "200 server ready - posting allowed\r\n", kProtocolNone),
        packet("http-answer-1400", 80,
               "HTTP/1.1 200 OK\r\nContent-Type: text/html\r\n\r\n" +
                   Repeat("<p>Some text in a page.</p>\n", 1357),
               kProtocolNone),
        packet("tls-server-1400", 443, "\x16\x03\x03\0\x7a\x02\0\0\x76\x03\x03"s + Noise(1389, 10),
               kProtocolNone),
        packet("mysql", 3306, "\x4a\0\0\0\x0a"s + "8.0.36\0\x0b\0\0\0"s + Noise(60, 11), kProtocolNone),
        packet("noise-1400-server", 4000, Noise(1400, 12), kProtocolNone),
    };
}

}  // namespace

std::vector<FirstPacket> FirstPackets() {
    std::vector<FirstPacket> all = FromClients();
    for (FirstPacket& packet : FromServers())
        all.push_back(std::move(packet));
    return all;
}

std::vector<FirstPacket> LongData() {
    constexpr std::size_t kSize = 64 * 1024;
    return {
        {"noise-64k", false, 4000, Noise(kSize, 20), kProtocolNone},
        {"text-64k", false, 4000, Repeat(kLogLine, kSize), kProtocolNone},
        {"xml-64k", false, 4000, Repeat(kXmlItem, kSize), kProtocolNone},
        // Every line ends as a match could, so that every byte goes through an automaton.
        {"digit-lines-64k", false, 4000,
         Repeat("2026-11-22 20:00:00 INFO worker: request 17, ms: 12\r\n", kSize), kProtocolNone},
    };
}

std::vector<FirstPacket> WorstData(std::size_t size) {
    // Ends as the filters look for, so that nothing is passed over.
    const std::string ends = "\nxxxxxx 0\r\n='jabber";
    const auto packet = [&](const char* name, const std::string& begin, const std::string& middle) {
        const std::string data = begin + Repeat(middle, size - begin.size() - ends.size()) + ends;
        return FirstPacket{name, false, 4000, data, kProtocolNone};
    };
    std::string letters(size, 'a');
    std::uint32_t seed = 1;
    for (char& letter : letters) {
        seed = seed * 1664525u + 1013904223u;
        if ((seed >> 31) != 0) letter = 'x';
    }
    return {
        packet("users", "", "usr 1 "),
        packet("versions", "<stream:stream", "ver 1 msnp1 xmlns='jabbe"),
        packet("streams", "", "<stream:strea"),
        packet("letters", "", letters),
        packet("lines", " 0\r\n", "xxxxxxxx\r"),
        packet("calls", "", "HELr\r\n SIP/2.0"),
        packet("invitation", "INVITE sip:", " SIP/2.0 usr 1 "),
        packet("nickname", "nick ", "usr 1 "),
        packet("empty-lines", "", "\r\n"),
        {"news", true, 4000, Repeat("200 newsnew" + Repeat("newsnew", size), size), kProtocolNone},
    };
}

ProtocolSample SampleOf(const FirstPacket& packet) {
    ProtocolSample sample{};
    const auto length = static_cast<std::int32_t>(packet.data.size());
    if (packet.fromServer) {
        sample.serverLength = length;
        sample.serverData = packet.data.data();
    } else {
        sample.clientLength = length;
        sample.clientData = packet.data.data();
    }
    sample.localPort = 50000;
    sample.remotePort = packet.remotePort;
    return sample;
}
