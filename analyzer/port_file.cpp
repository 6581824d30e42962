// See port_file.h.
#include "analyzer/port_file.h"

#include "analyzer/regular_file.h"

void WritePortFile(const std::string& path, std::uint16_t port) {
    ReplaceRegularFile(path, {static_cast<char>(port & 0xFF), static_cast<char>(port >> 8), 0, 0});
}
