// Files: opened, read at a place, and Windows' functions for it.
#include "platform/kernel/disk_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <string>

#include "platform/kernel/fault_points.h"
#include "platform/kernel/last_error.h"
#include "platform/kernel/text.h"

namespace platform {

DiskFile::~DiskFile() {
    close(descriptor_);
}

DWORD DiskFile::ReadAt(std::uint64_t offset, void* data, std::size_t size, std::size_t* read) noexcept {
    *read = 0;
    while (*read < size) {
        const ssize_t got = pread(descriptor_, static_cast<char*>(data) + *read, size - *read,
                                  static_cast<off_t>(offset + *read));
        if (got == 0) break;
        if (got > 0) {
            *read += static_cast<std::size_t>(got);
        } else if (errno != EINTR) {
            return errno == EFAULT ? ERROR_NOACCESS : ERROR_READ_FAULT;
        }
    }
    return ERROR_SUCCESS;
}

std::uint64_t DiskFile::Size() noexcept {
    struct stat status;
    return fstat(descriptor_, &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

namespace {

constexpr DWORD kWriteRights = GENERIC_WRITE | FILE_WRITE_DATA | FILE_APPEND_DATA | DELETE;

DWORD ErrorOfOpen(const std::string& path) {
    switch (errno) {
        case ENOENT: {
            const std::size_t slash = path.find_last_of('/');
            const bool folderIsThere =
                slash == std::string::npos || access(path.substr(0, slash + 1).c_str(), F_OK) == 0;
            return folderIsThere ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND;
        }
        case ENOTDIR:
            return ERROR_PATH_NOT_FOUND;
        case ENOMEM:
        case EMFILE:
        case ENFILE:
            return ERROR_NOT_ENOUGH_MEMORY;
        default:
            return ERROR_ACCESS_DENIED;
    }
}

HANDLE OpenToRead(const std::string& path) {
    // A pipe or a device is no file here, and opening one could block.
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0) return Fail<HANDLE>(ErrorOfOpen(path), INVALID_HANDLE_VALUE);
    auto file = std::make_shared<DiskFile>(descriptor);
    struct stat status;
    if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode))
        return Fail<HANDLE>(ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE);
    const HANDLE handle = OpenHandle(std::move(file));
    return handle != nullptr ? handle : INVALID_HANDLE_VALUE;
}

/// CreateFile behind its fault point; `path` null for one that cannot be converted.
HANDLE OpenFile(const std::string& path, DWORD access, DWORD disposition, DWORD flags) noexcept {
    if ((access & kWriteRights) != 0 || disposition != OPEN_EXISTING || (flags & FILE_FLAG_OVERLAPPED) != 0)
        return Fail<HANDLE>(ERROR_CALL_NOT_IMPLEMENTED, INVALID_HANDLE_VALUE);
    try {
        return OpenToRead(path);
    } catch (const std::bad_alloc&) {
        return Fail<HANDLE>(ERROR_NOT_ENOUGH_MEMORY, INVALID_HANDLE_VALUE);
    }
}

std::uint64_t OffsetOf(const OVERLAPPED& overlapped) {
    return static_cast<std::uint64_t>(overlapped.OffsetHigh) << 32 | overlapped.Offset;
}

}  // namespace

}  // namespace platform

using platform::DiskFile;
using platform::Fail;
using platform::ObjectKind;
using platform::PlatformCall;
using platform::ReferenceHandleAs;

HANDLE CreateFileA(LPCSTR name, DWORD access, DWORD, LPSECURITY_ATTRIBUTES, DWORD disposition, DWORD flags,
                   HANDLE) {
    PlatformCall call("CreateFileA", ERROR_FILE_NOT_FOUND);
    if (call.Fails()) return INVALID_HANDLE_VALUE;
    if (name == nullptr || *name == 0) return Fail<HANDLE>(ERROR_PATH_NOT_FOUND, INVALID_HANDLE_VALUE);
    return platform::OpenFile(name, access, disposition, flags);
}

HANDLE CreateFileW(LPCWSTR name, DWORD access, DWORD, LPSECURITY_ATTRIBUTES, DWORD disposition, DWORD flags,
                   HANDLE) {
    PlatformCall call("CreateFileW", ERROR_FILE_NOT_FOUND);
    if (call.Fails()) return INVALID_HANDLE_VALUE;
    if (name == nullptr || *name == 0) return Fail<HANDLE>(ERROR_PATH_NOT_FOUND, INVALID_HANDLE_VALUE);
    return platform::OpenFile(platform::ToNarrow(name), access, disposition, flags);
}

BOOL ReadFile(HANDLE handle, LPVOID data, DWORD size, LPDWORD read, LPOVERLAPPED overlapped) {
    PlatformCall call("ReadFile", ERROR_READ_FAULT);
    if (read != nullptr) *read = 0;
    if (call.Fails()) return FALSE;
    const auto file = ReferenceHandleAs<DiskFile>(handle, ObjectKind::kFile);
    if (file == nullptr) return Fail(ERROR_INVALID_HANDLE);
    const std::uint64_t offset = overlapped != nullptr ? platform::OffsetOf(*overlapped) : file->position();
    std::size_t got = 0;
    const DWORD error = file->ReadAt(offset, data, call.LimitCount(size), &got);
    if (error != 0) return Fail(error);
    file->SetPosition(offset + got);
    if (read != nullptr) *read = static_cast<DWORD>(got);
    if (overlapped == nullptr) return TRUE;
    overlapped->InternalHigh = got;
    overlapped->Internal = 0;
    if (overlapped->hEvent != nullptr) SetEvent(overlapped->hEvent);
    return got == 0 && size > 0 ? Fail(ERROR_HANDLE_EOF) : TRUE;
}

DWORD SetFilePointer(HANDLE handle, LONG distance, PLONG distanceHigh, DWORD method) {
    PlatformCall call("SetFilePointer", ERROR_INVALID_HANDLE);
    if (call.Fails()) return INVALID_SET_FILE_POINTER;
    const auto file = ReferenceHandleAs<DiskFile>(handle, ObjectKind::kFile);
    if (file == nullptr) return Fail<DWORD>(ERROR_INVALID_HANDLE, INVALID_SET_FILE_POINTER);
    if (method > FILE_END) return Fail<DWORD>(ERROR_INVALID_PARAMETER, INVALID_SET_FILE_POINTER);
    std::int64_t target = distance;
    if (distanceHigh != nullptr) {
        const auto low = static_cast<std::uint32_t>(distance);
        target = static_cast<std::int64_t>(static_cast<std::uint64_t>(*distanceHigh) << 32 | low);
    }
    if (method == FILE_CURRENT) target += static_cast<std::int64_t>(file->position());
    if (method == FILE_END) target += static_cast<std::int64_t>(file->Size());
    if (target < 0) return Fail<DWORD>(ERROR_NEGATIVE_SEEK, INVALID_SET_FILE_POINTER);
    if (distanceHigh == nullptr && target > INT32_MAX)
        return Fail<DWORD>(ERROR_INVALID_PARAMETER, INVALID_SET_FILE_POINTER);
    file->SetPosition(static_cast<std::uint64_t>(target));
    if (distanceHigh != nullptr) *distanceHigh = static_cast<LONG>(target >> 32);
    // A position whose low half looks like the failure is told from it by the last error.
    SetLastError(ERROR_SUCCESS);
    return static_cast<DWORD>(target);
}
