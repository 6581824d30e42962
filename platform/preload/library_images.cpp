#include "platform/preload/library_images.h"

#include <link.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <cstdint>

namespace preload {
namespace {

constexpr std::size_t kMostRanges = 32;
constexpr std::size_t kMostLibraries = 8;

/// Writable memory, and a copy of it.
struct Range {
    char* memory;
    std::size_t size;
    void* copy;
};

Range Ranges[kMostRanges];
std::size_t RangeCount = 0;
std::uintptr_t Libraries[kMostLibraries];  // where they are loaded
std::size_t LibraryCount = 0;
unsigned Generation = 0;  // written in a child of fork, while it has one thread

struct Wanted {
    const void* const* addresses;
    std::size_t count;
};

bool Holds(const dl_phdr_info& library, const Wanted& wanted) {
    for (int i = 0; i < library.dlpi_phnum; ++i) {
        const ElfW(Phdr)& segment = library.dlpi_phdr[i];
        if (segment.p_type != PT_LOAD) continue;
        const std::uintptr_t begin = library.dlpi_addr + segment.p_vaddr;
        for (std::size_t k = 0; k < wanted.count; ++k) {
            const auto address = reinterpret_cast<std::uintptr_t>(wanted.addresses[k]);
            if (address >= begin && address < begin + segment.p_memsz) return true;
        }
    }
    return false;
}

void SaveRange(std::uintptr_t begin, std::uintptr_t end) {
    if (begin >= end || RangeCount == kMostRanges) return;
    Range& range = Ranges[RangeCount];
    range = {reinterpret_cast<char*>(begin), end - begin, malloc(end - begin)};
    if (range.copy == nullptr) return;
    memcpy(range.copy, range.memory, range.size);
    ++RangeCount;
}

/// The part that the loader has made read-only after relocation is left out: it never changes.
int SaveLibrary(dl_phdr_info* library, std::size_t, void* argument) {
    if (!Holds(*library, *static_cast<const Wanted*>(argument)) || LibraryCount == kMostLibraries) return 0;
    Libraries[LibraryCount++] = library->dlpi_addr;
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    std::uintptr_t fixedBegin = 0;
    std::uintptr_t fixedEnd = 0;
    for (int i = 0; i < library->dlpi_phnum; ++i) {
        const ElfW(Phdr)& segment = library->dlpi_phdr[i];
        if (segment.p_type != PT_GNU_RELRO) continue;
        fixedBegin = library->dlpi_addr + segment.p_vaddr;
        fixedEnd = (fixedBegin + segment.p_memsz) & ~(page - 1);
    }
    for (int i = 0; i < library->dlpi_phnum; ++i) {
        const ElfW(Phdr)& segment = library->dlpi_phdr[i];
        if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) == 0) continue;
        const std::uintptr_t begin = library->dlpi_addr + segment.p_vaddr;
        const std::uintptr_t end = begin + segment.p_memsz;
        const bool overlaps = fixedBegin < end && fixedEnd > begin;
        SaveRange(begin, overlaps ? fixedBegin : end);
        if (overlaps) SaveRange(fixedEnd, end);
    }
    return 0;
}

int RestoreThreadMemory(dl_phdr_info* library, std::size_t, void*) {
    bool isOurs = false;
    for (std::size_t i = 0; i < LibraryCount; ++i)
        isOurs = isOurs || Libraries[i] == library->dlpi_addr;
    // Without data, this thread has not used any yet.
    if (!isOurs || library->dlpi_tls_data == nullptr) return 0;
    for (int i = 0; i < library->dlpi_phnum; ++i) {
        const ElfW(Phdr)& segment = library->dlpi_phdr[i];
        if (segment.p_type != PT_TLS) continue;
        auto* const data = static_cast<char*>(library->dlpi_tls_data);
        memcpy(data, reinterpret_cast<const void*>(library->dlpi_addr + segment.p_vaddr), segment.p_filesz);
        memset(data + segment.p_filesz, 0, segment.p_memsz - segment.p_filesz);
    }
    return 0;
}

}  // namespace

void SaveLibraryImages(const void* const* addresses, std::size_t count) {
    Wanted wanted = {addresses, count};
    dl_iterate_phdr(SaveLibrary, &wanted);
}

void RestoreLibraryImages() {
    for (std::size_t i = 0; i < RangeCount; ++i)
        memcpy(Ranges[i].memory, Ranges[i].copy, Ranges[i].size);
    dl_iterate_phdr(RestoreThreadMemory, nullptr);
    ++Generation;
}

unsigned ImageGeneration() {
    return Generation;
}

}  // namespace preload
