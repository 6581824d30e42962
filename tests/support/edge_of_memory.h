// Memory that ends: what lies behind its last byte can't be read.
#pragma once

#ifdef _WIN32
#include <windows.h>
#else
#include <sys/mman.h>
#endif

#include <cstddef>

class EdgeOfMemory {
  public:
#ifdef _WIN32
    EdgeOfMemory() : pages_(VirtualAlloc(nullptr, 2 * kPage, MEM_RESERVE, PAGE_NOACCESS)) {
        VirtualAlloc(pages_, kPage, MEM_COMMIT, PAGE_READWRITE);
    }
    ~EdgeOfMemory() {
        VirtualFree(pages_, 0, MEM_RELEASE);
    }

    /// From now on nothing of it can be read; nor is it anybody else's.
    void TakeAway() {
        VirtualFree(pages_, kPage, MEM_DECOMMIT);
    }
#else
    EdgeOfMemory() : pages_(mmap(nullptr, 2 * kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {
        mprotect(pages_, kPage, PROT_READ | PROT_WRITE);
    }
    ~EdgeOfMemory() {
        munmap(pages_, 2 * kPage);
    }

    /// From now on nothing of it can be read; nor is it anybody else's.
    void TakeAway() {
        mprotect(pages_, kPage, PROT_NONE);
    }
#endif
    EdgeOfMemory(const EdgeOfMemory&) = delete;
    EdgeOfMemory& operator=(const EdgeOfMemory&) = delete;

    /// The last `count` bytes, at most a page.
    char* LastBytes(std::size_t count) const {
        return static_cast<char*>(pages_) + kPage - count;
    }

  private:
    static constexpr std::size_t kPage = 4096;
    void* pages_;
};
