// Says which protocol the first bytes of a connection are taken for, and, on request, what each row of the
// table makes of them:
//     printf 'EHLO x\r\n' | classify
//     classify --side server --remote-port 21 --rows banner.bin
// Exit status: 0 when a row matched, 1 when none did, 2 when the data cannot be read.
#include <CLI/CLI.hpp>

#include <cstdint>
#include <cstdio>
#include <string>

#include "protocols/protocol_table.h"
#include "protocols/regexp.h"

namespace {

struct Options {
    std::string file;
    std::string side = "client";
    std::uint16_t localPort = 0;
    std::uint16_t remotePort = 0;
    bool rows = false;
};

/// Far more than a send or a receive holds.
constexpr std::size_t kMaxBytes = 16 * 1024 * 1024;

bool ReadAll(const std::string& path, std::string& data) {
    std::FILE* const file = path.empty() ? stdin : std::fopen(path.c_str(), "rb");
    if (file == nullptr) return false;
    char buffer[4096];
    for (std::size_t got = 1; got != 0 && data.size() <= kMaxBytes;) {
        got = std::fread(buffer, 1, sizeof(buffer), file);
        data.append(buffer, got);
    }
    const bool good = std::ferror(file) == 0 && data.size() <= kMaxBytes;
    if (file != stdin) std::fclose(file);
    return good;
}

ProtocolSample MakeSample(const Options& options, const std::string& data) {
    ProtocolSample sample{};
    const auto length = static_cast<std::int32_t>(data.size());
    if (options.side == "client") {
        sample.clientLength = length;
        sample.clientData = data.data();
    } else {
        sample.serverLength = length;
        sample.serverData = data.data();
    }
    sample.localPort = options.localPort;
    sample.remotePort = options.remotePort;
    return sample;
}

const char* VerdictName(int verdict) {
    switch (verdict) {
        case kMatch:
            return "match";
        case kUndecided:
            return "undecided";
        case kNoMatch:
            return "no match";
        default:
            return "error";
    }
}

void PrintRows(const ProtocolSample& sample) {
    for (std::size_t row = 0; row < kProtocolRowCount; ++row) {
        const ProtocolEntry& entry = ProtocolTable[row];
        std::printf("%2d %-14s %-10s", static_cast<int>(row + 1), GetProtocolName(entry.id),
                    VerdictName(TestProtocolRow(row, sample)));
        if (entry.client.pattern != nullptr) std::printf("  client %s", entry.client.pattern);
        if (entry.server.pattern != nullptr) std::printf("  server %s", entry.server.pattern);
        if (entry.validator != nullptr) std::printf("  validator");
        if (entry.localPort != -1) std::printf("  local port %d", static_cast<int>(entry.localPort));
        if (entry.remotePort != -1) std::printf("  remote port %d", static_cast<int>(entry.remotePort));
        std::printf("\n");
    }
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app{"Names the protocol of a connection's first bytes", "classify"};
    app.add_option("file", options.file, "the bytes; standard input when it isn't given");
    app.add_option("--side", options.side, "who sent them: client (the default) or server")
        ->check(CLI::IsMember({"client", "server"}));
    app.add_option("--local-port", options.localPort, "of the application's socket");
    app.add_option("--remote-port", options.remotePort, "of the destination");
    app.add_flag("--rows", options.rows, "print each row's verdict, its patterns and its conditions");
    CLI11_PARSE(app, argc, argv);

    std::string data;
    if (!ReadAll(options.file, data)) {
        std::fprintf(stderr, "classify: cannot read %s\n",
                     options.file.empty() ? "the input" : options.file.c_str());
        return 2;
    }
    if (CompileProtocolPatterns() != 0) return 2;
    ProtocolSample sample = MakeSample(options, data);
    if (options.rows) PrintRows(sample);
    const bool matched = ClassifyConnection(sample) != 0;
    std::printf("%s (0x%x)\n", GetProtocolName(sample.protocol), static_cast<unsigned>(sample.protocol));
    FreeProtocolPatterns();
    return matched ? 0 : 1;
}
