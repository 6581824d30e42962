// The file through which clients learn the analyzer's port.
#pragma once

#include <cstdint>
#include <string>

/// Writes the port as 4 little-endian bytes, making the folders above the file. A reader sees the whole file
/// or the one before it. Throws FileError; nothing is left behind then.
void WritePortFile(const std::string& path, std::uint16_t port);
