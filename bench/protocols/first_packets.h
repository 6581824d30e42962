// First packets of connections, made by hand in the shape of real ones, with the protocol each must be given:
// what a desktop sends and receives, half of it nothing that the table knows. Some longer data to show how
// the cost grows.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "protocols/protocol_table.h"

struct FirstPacket {
    std::string name;
    bool fromServer;
    std::uint16_t remotePort;
    std::string data;
    std::uint32_t wanted;
};

/// The mix: 53 packets of at most 1,505 bytes.
std::vector<FirstPacket> FirstPackets();

/// 64 KiB each of several kinds.
std::vector<FirstPacket> LongData();

/// Packets of this size made to cost as much as can be: each kept up by rows that almost match throughout.
/// A search over random combinations of the patterns' pieces found none that is much worse.
std::vector<FirstPacket> WorstData(std::size_t size);

ProtocolSample SampleOf(const FirstPacket& packet);
