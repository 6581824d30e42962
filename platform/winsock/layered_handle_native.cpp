// A handle that Winsock makes: a file object of the kernel.
#include <memory>
#include <new>

#include "platform/kernel/file_object.h"
#include "platform/kernel/handles.h"
#include "platform/winsock/layered_handle.h"

namespace winsock_host {
namespace {

HANDLE ToHandle(SOCKET socket) {
    return reinterpret_cast<HANDLE>(socket);
}

}  // namespace

SOCKET CreateLayeredHandle() noexcept {
    try {
        auto object = std::make_shared<platform::FileObject>(platform::ObjectKind::kLayeredSocket);
        const HANDLE handle = platform::OpenHandle(std::move(object));
        return handle == nullptr ? INVALID_SOCKET : reinterpret_cast<SOCKET>(handle);
    } catch (const std::bad_alloc&) {
        return INVALID_SOCKET;
    }
}

void CloseLayeredHandle(SOCKET handle) noexcept {
    platform::CloseOpenHandle(ToHandle(handle));
}

void AnnounceCompletion(SOCKET handle, OVERLAPPED* overlapped, DWORD bytes, DWORD error) noexcept {
    const auto object = platform::FileObject::From(platform::ReferenceHandle(ToHandle(handle)));
    if (object != nullptr) object->PostCompletion(overlapped, bytes, error);
}

}  // namespace winsock_host
