// See answer_frames.h.
#include "analyzer/answer_frames.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "messages/analyzer_messages.h"
#include "messages/message_limits.h"

namespace {

constexpr std::size_t kFieldsOffsetAt = 4;
constexpr std::size_t kActionAt = 12;  // in the fields

/// The fields of an answer that names no request and leaves the flags as they are.
std::vector<unsigned char> MakeFields() {
    LSPAnalyzerMessageResponse message;
    message.Flags = kFlagKeepFlags;
    BufferPiece* pieces = nullptr;
    std::uint32_t count = 0;
    std::vector<unsigned char> frame;
    if (!message.Serialize() || !message.GetAllBuffers(pieces, count, false)) throw std::bad_alloc();
    const std::unique_ptr<BufferPiece[]> releasePieces(pieces);
    for (std::uint32_t index = 0; index < count; ++index)
        frame.insert(frame.end(), pieces[index].data, pieces[index].data + pieces[index].length);
    return {frame.begin() + kFrameHeaderSize, frame.end()};
}

void StoreWord(std::size_t value, unsigned char* at) {
    const auto word = static_cast<std::uint32_t>(value);
    std::memcpy(at, &word, sizeof(word));
}

void AppendFrame(std::uint32_t action, const unsigned char* data, std::size_t size,
                 std::vector<unsigned char>& out) {
    static const std::vector<unsigned char> fields = MakeFields();
    const std::size_t fieldsOffset = kFrameHeaderSize + size;
    const std::size_t begin = out.size();
    unsigned char header[kFrameHeaderSize];
    StoreWord(fieldsOffset + fields.size(), header);
    StoreWord(fieldsOffset, header + kFieldsOffsetAt);
    out.insert(out.end(), header, header + sizeof(header));
    out.insert(out.end(), data, data + size);
    out.insert(out.end(), fields.begin(), fields.end());
    StoreWord(action, out.data() + begin + fieldsOffset + kActionAt);
}

}  // namespace

void AppendAction(std::uint32_t action, const unsigned char* data, std::size_t size,
                  std::vector<unsigned char>& out) {
    do {
        const std::size_t part = std::min(size, kMostAnswerData);
        AppendFrame(action, data, part, out);
        data += part;
        size -= part;
    } while (size != 0);
}
