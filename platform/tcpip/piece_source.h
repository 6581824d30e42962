// What TransmitFile and TransmitPackets send: memory and ranges of files, in order. Files are read a chunk at
// a time, when their turn has come.
#pragma once

#include <memory>
#include <vector>

#include "platform/kernel/disk_file.h"
#include "platform/tcpip/kernel_socket.h"

namespace tcpip {

class PieceSource {
  public:
    /// The memory stays the caller's; nothing is added when it is empty.
    void AddMemory(void* data, std::size_t size);

    /// `size` bytes from `offset` on, or what there is of them; how many that are.
    std::uint64_t AddFile(std::shared_ptr<platform::DiskFile> file, std::uint64_t offset, std::uint64_t size);

    /// All bytes of all pieces.
    std::uint64_t Size() const;

    /// What comes next, valid until the next call; an empty buffer when nothing is left. 0 or the Winsock
    /// error of a file that cannot be read.
    int Next(kernel::IoBuffer* buffer);

  private:
    struct Piece {
        kernel::IoBuffer memory;
        std::shared_ptr<platform::DiskFile> file;  // null: `memory` is meant
        std::uint64_t offset;
        std::uint64_t size;
    };

    std::vector<Piece> pieces_;
    std::size_t next_ = 0;
    std::vector<char> chunk_;
};

}  // namespace tcpip
