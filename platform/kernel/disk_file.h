// An ordinary file that was opened to be read. Any thread may call.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/kernel/handles.h"

namespace platform {

class DiskFile final : public Object {
  public:
    /// Takes over the descriptor of an ordinary file.
    explicit DiskFile(int descriptor) : Object(ObjectKind::kFile), descriptor_(descriptor) {}
    ~DiskFile() override;

    /// Reads up to `size` bytes at `offset`; `*read` is fewer only at the end of the file. 0 or the error.
    DWORD ReadAt(std::uint64_t offset, void* data, std::size_t size, std::size_t* read) noexcept;

    /// In bytes, at this moment.
    std::uint64_t Size() noexcept;

    /// Where what names no offset reads next.
    std::uint64_t position() const { return position_.load(); }
    void SetPosition(std::uint64_t position) { position_.store(position); }

  private:
    const int descriptor_;
    std::atomic<std::uint64_t> position_{0};
};

}  // namespace platform
