// The search; see the header.
#include "protocols/tail_search.h"

#include <cstring>

bool TailSearch::EndsAt(const unsigned char* last) const {
    for (unsigned distance = 0; distance < length_; ++distance) {
        if ((allowed_[*(last - distance)] >> distance & 1) == 0) return false;
    }
    return true;
}

bool TailSearch::MayMatch(const unsigned char* data, std::size_t length, Patience& patience) const {
    if (length < length_) return false;
    const unsigned char* begin = data + (length_ - 1 - anchor_);
    const unsigned char* const end = data + (length - anchor_);
    while (begin < end) {
        const void* found = std::memchr(begin, anchorByte_, end - begin);
        if (found == nullptr) return false;
        begin = static_cast<const unsigned char*>(found) + 1;
        if (!patience.Lasts() || EndsAt(begin - 1 + anchor_)) return true;
        patience.Lose(1);
    }
    return false;
}
