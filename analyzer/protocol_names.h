// The names of the application protocols that the layer recognises, as rules and logs have them.
#pragma once

#include <cstdint>
#include <string>

/// "ssh", "none" for one that is not known yet, "unknown" for one that was given up, or "protocol 0x..".
std::string ProtocolName(std::uint32_t protocol);

/// The id of a name that ProtocolName gives. False when there is none.
bool ProtocolByName(const std::string& name, std::uint32_t* protocol);
