// See protocol_names.h.
#include "analyzer/protocol_names.h"

#include <cstdio>

#include "protocols/protocol_table.h"

namespace {

/// What the layer tells of a connection whose protocol it has stopped looking for.
constexpr std::uint32_t kGivenUp = 0x80000000;

constexpr struct {
    std::uint32_t id;
    const char* name;
} kNames[] = {
    {kProtocolNone, "none"},
    {kProtocolHttp, "http"},
    {kProtocolYm, "ym"},
    {kProtocolBitTorrent, "bittorrent"},
    {kProtocolFtp, "ftp"},
    {kProtocolSmtp, "smtp"},
    {kProtocolDirectConnect, "direct-connect"},
    {kProtocolDoom3, "doom3"},
    {kProtocolIrc, "irc"},
    {kProtocolMsn, "msn"},
    {kProtocolJabber, "jabber"},
    {kProtocolGnutella, "gnutella"},
    {kProtocolSsh, "ssh"},
    {kProtocolEDonkey, "edonkey"},
    {kProtocolPop3, "pop3"},
    {kProtocolImap, "imap"},
    {kProtocolSip, "sip"},
    {kProtocolVnc, "vnc"},
    {kProtocolNntp, "nntp"},
    {kProtocolLdap, "ldap"},
    {kProtocolSsl, "ssl"},
    {kProtocolHttps, "https"},
    {kGivenUp, "unknown"},
};

}  // namespace

std::string ProtocolName(std::uint32_t protocol) {
    for (const auto& row : kNames) {
        if (row.id == protocol) return row.name;
    }
    char text[24];
    std::snprintf(text, sizeof(text), "protocol 0x%x", static_cast<unsigned>(protocol));
    return text;
}

bool ProtocolByName(const std::string& name, std::uint32_t* protocol) {
    for (const auto& row : kNames) {
        if (name != row.name) continue;
        *protocol = row.id;
        return true;
    }
    return false;
}
