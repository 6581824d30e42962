// The search through the table against its rows one by one, which run their patterns as simulated states: on
// data made to keep many rows alive, to look like a match again and again, and to change that at any byte.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "protocols/protocol_table.h"
#include "protocols/regexp.h"
#include "tests/support/seeded_random.h"

namespace {

using namespace std::string_literals;

std::vector<std::string> Split(const std::string& pieces) {
    std::vector<std::string> found;
    std::istringstream all(pieces);
    for (std::string piece; std::getline(all, piece, ',');)
        found.push_back(piece);
    return found;
}

// Matches, and pieces of them.
const std::vector<std::string> kClientPieces = Split(
    "\r\n,\r,\n,GET,TRAC,CONNECT,ymsg,YHO,HELO,ehl,nick ,user a,\023BitTorrent proto,\023BitTorrent protocol,"
    "ver ,ver 17 msnp1,8 , cvr0,cvr0\r\n,usr 1 ,ans 1 u,u 0.1, 0\r\n,0\r,<stream:stream,<stream:strea,"
    "xmlns='jabber,xmlns=\"jabbe,='jabber,=,GNUTELLA CONNECT/,GNUTELLA CONNECT/0.6\r\n,\xe3....,\xe3....\x01,"
    "INVITE sip:, SIP/2.0,INVITE sip:x SIP/2.0\r\n,a,v,u,<, ,1,x,\xff,\0,\x30\x05\x02\x01\x01\x63\x00,"
    "\x80\x03\x01\x03\x01"s);
const std::vector<std::string> kServerPieces = Split(
    "\r\n,\n,220,22,2,$lock,$key ,$MyNick ,NOTICE AUT,NOTICE AUTH,SSH-,SSH-2.,0,9,+ok,+ok ,-ERR ,* ok,a1,a,"
    " noop, noo,RFB 003.00,8\n,200 ,201,news,new,200 news\r\n,x,\r,\xff");

std::string Pieces(SeededRandom& random, const std::vector<std::string>& pieces) {
    const auto any = [&] { return pieces[random.Below(unsigned(pieces.size()))]; };
    if (random.Below(20) == 0) return any();
    std::string data;
    for (unsigned count = random.Below(4); count > 0; --count)
        data += any();
    // Two pieces over and over, to any length against the blocks that rows are stepped in.
    std::string repeated = any();
    if (random.Below(2) == 0) repeated += any();
    const std::size_t length = random.Below(random.Below(4) == 0 ? 700 : 60);
    while (data.size() < length)
        data += random.Below(16) == 0 ? any() : repeated;
    for (unsigned count = random.Below(4); count > 0; --count)
        data += any();
    if (random.Below(3) == 0 && !data.empty()) {
        data[random.Below(unsigned(data.size()))] ^= static_cast<char>(1u << random.Below(8));
    }
    return data;
}

std::uint32_t FirstMatchingRow(const ProtocolSample& sample) {
    for (std::size_t row = 0; row < kProtocolRowCount; ++row) {
        if (TestProtocolRow(row, sample) == kMatch) return ProtocolTable[row].id;
    }
    return kProtocolNone;
}

TEST(ClassificationDifferential, TheSearchFindsTheFirstRowThatMatches) {
    ASSERT_EQ(0, CompileProtocolPatterns());
    SeededRandom random(20261124);
    std::printf("QX_SEED=%u\n", random.Seed());
    std::map<std::string, int> found;
    for (int i = 0; i < 60000; ++i) {
        // Mostly one side, as the callers have it.
        const unsigned sides = random.Below(5);
        const std::string client = sides < 3 ? Pieces(random, kClientPieces) : ""s;
        const std::string server = sides > 1 ? Pieces(random, kServerPieces) : ""s;
        ProtocolSample sample{};
        sample.clientLength = static_cast<std::int32_t>(client.size());
        sample.clientData = client.data();
        sample.serverLength = static_cast<std::int32_t>(server.size());
        sample.serverData = server.data();
        const std::uint16_t ports[] = {21, 443, 4000};
        sample.remotePort = ports[random.Below(3)];

        const std::uint32_t wanted = FirstMatchingRow(sample);
        ASSERT_EQ(wanted != kProtocolNone, ClassifyConnection(sample) != 0)
            << testing::PrintToString(client) << " / " << testing::PrintToString(server);
        ASSERT_EQ(wanted, sample.protocol)
            << testing::PrintToString(client) << " / " << testing::PrintToString(server);
        ++found[GetProtocolName(wanted)];
    }
    // Every row must be met, and none must drown the others.
    for (const ProtocolEntry* row = ProtocolTable; row->id != kProtocolTableEnd; ++row)
        EXPECT_GT(found[GetProtocolName(row->id)], 20) << GetProtocolName(row->id);
    EXPECT_GT(found["NONE"], 20000);
}

}  // namespace
