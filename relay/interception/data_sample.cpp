// See data_sample.h.
#include "relay/interception/data_sample.h"

#include <guarded_call.h>

#include <algorithm>
#include <cstring>

#include "messages/buffer_arena.h"

DataSample::~DataSample() {
    ArenaFree(bytes_.data);
}

bool DataSample::Copy(const WSABUF* buffers, DWORD count, DWORD limit) {
    const DWORD most = std::min(limit, kMostSampleBytes);
    DWORD total = 0;
    const bool measured = GuardedCall([&]() noexcept {
        for (DWORD i = 0; i < count && total < most; ++i)
            total += std::min(DWORD{buffers[i].len}, most - total);
    });
    if (!measured) return false;
    if (total == 0) return true;
    unsigned char* const copy = ArenaAlloc(total);
    if (copy == nullptr) return false;
    bytes_.data = copy;
    DWORD copied = 0;
    DWORD first = 0;
    // The application may change the lengths meanwhile: what was measured is the limit.
    const bool read = GuardedCall([&]() noexcept {
        for (DWORD i = 0; i < count && copied < total; ++i) {
            const DWORD length = std::min(DWORD{buffers[i].len}, total - copied);
            if (length > 0) std::memcpy(copy + copied, buffers[i].buf, length);
            copied += length;
            if (i == 0) first = length;
        }
    });
    if (!read) return false;
    bytes_.length = copied;
    firstLength_ = first;
    return true;
}

bool DataSample::MoveTo(LSPAnalyzerMessage* request) {
    if (IsEmpty()) return true;
    if (!request->SetDataBuffers(&bytes_, 1, 0, true)) return false;
    bytes_ = {0, nullptr};
    return true;
}
