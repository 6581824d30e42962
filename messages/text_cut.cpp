// See text_cut.h.
#include "messages/text_cut.h"

namespace {

constexpr std::size_t kLongestCharacter = 4;

bool IsFurtherByte(unsigned char byte) {
    return (byte & 0xC0) == 0x80;
}

std::size_t CharacterLength(unsigned char firstByte) {
    if (firstByte < 0xC0) return 1;
    if (firstByte < 0xE0) return 2;
    return firstByte < 0xF0 ? 3 : 4;
}

}  // namespace

std::size_t WithoutPartialCharacter(std::string_view text) {
    for (std::size_t back = 1; back < kLongestCharacter && back <= text.size(); ++back) {
        const auto byte = static_cast<unsigned char>(text[text.size() - back]);
        if (IsFurtherByte(byte)) continue;
        return CharacterLength(byte) > back ? text.size() - back : text.size();
    }
    return text.size();
}

std::size_t FittingLength(std::string_view text, std::size_t limit) {
    return text.size() <= limit ? text.size() : WithoutPartialCharacter(text.substr(0, limit));
}
