// Classifies a sample. Input: two bytes each of local and remote port, two of the client's length, then the
// bytes of the client and the server. The search through the rows must find what the rows' own verdicts say.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "protocols/protocol_table.h"
#include "protocols/regexp.h"

namespace {

constexpr std::size_t kHeader = 6;

std::uint16_t Word(const std::uint8_t* bytes) {
    return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

std::uint32_t FirstMatchingRow(const ProtocolSample& sample) {
    for (std::size_t row = 0; row < kProtocolRowCount; ++row) {
        const int verdict = TestProtocolRow(row, sample);
        if (verdict < kNoMatch || verdict > kMatch) std::abort();
        if (verdict == kMatch) return ProtocolTable[row].id;
    }
    return kProtocolNone;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
    static const int compiled = CompileProtocolPatterns();
    if (compiled != 0) std::abort();
    if (size < kHeader) return 0;
    const std::size_t clientLength = std::min<std::size_t>(Word(input + 4), size - kHeader);
    // Copies of exactly these sizes, so that a read beyond either is seen.
    const std::vector<std::uint8_t> client(input + kHeader, input + kHeader + clientLength);
    const std::vector<std::uint8_t> server(input + kHeader + clientLength, input + size);
    ProtocolSample sample{};
    sample.localPort = Word(input);
    sample.remotePort = Word(input + 2);
    sample.clientLength = static_cast<std::int32_t>(client.size());
    sample.clientData = client.data();
    sample.serverLength = static_cast<std::int32_t>(server.size());
    sample.serverData = server.data();

    const std::uint32_t wanted = FirstMatchingRow(sample);
    const bool matched = ClassifyConnection(sample) != 0;
    if (matched != (wanted != kProtocolNone) || sample.protocol != wanted) std::abort();
    return 0;
}
