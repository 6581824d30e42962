// WSPIoctl: hands out the layer's own extension functions and translates the query for the lower handle;
// everything else goes down.
#include <cstring>

#include "provider/catalog/lower_call.h"
#include "provider/contexts/socket_context.h"
#include "provider/operation_failure.h"
#include "provider/operations/extension_functions.h"
#include "provider/operations/operations.h"
#include "provider/overlapped/overlapped_completion.h"
#include "provider/overlapped/overlapped_manager.h"

namespace {

/// The application's arguments, beside socket, code and notification.
struct IoctlBuffers {
    LPVOID Input;
    DWORD InputLength;
    LPVOID Output;
    DWORD OutputLength;
    LPDWORD BytesReturned;
};

/// Writes a value of pointer size as the answer.
int AnswerWithWord(ULONG_PTR word, const IoctlBuffers& buffers, LPINT error) {
    if (GuardedCall([&]() noexcept {
            std::memcpy(buffers.Output, &word, sizeof(word));
            *buffers.BytesReturned = sizeof(word);
        })) {
        return 0;
    }
    return Fail(WSAEFAULT, error);
}

/// The answer to a query for an extension function. `*forward` is set for a function that the lower provider
/// gives itself.
int AnswerExtensionQuery(SocketContext* context, const IoctlBuffers& buffers, bool* forward, LPINT error) {
    GUID id;
    if (buffers.Input == nullptr || buffers.InputLength < sizeof(id) || buffers.Output == nullptr ||
        buffers.OutputLength < sizeof(void*) || buffers.BytesReturned == nullptr ||
        !GuardedCall([&]() noexcept { std::memcpy(&id, buffers.Input, sizeof(id)); })) {
        return Fail(WSAEFAULT, error);
    }
    if (const ExtensionFunction* const function = FindExtensionFunction(id)) {
        // A function that the lower provider lacks is only missed when it is called.
        LoadLowerExtension(context, *function);
        return AnswerWithWord(function->LayerAddress(), buffers, error);
    }
    *forward = IsForwardedExtension(id);
    return *forward ? 0 : Fail(WSAEINVAL, error);
}

OverlappedOperation* PrepareIoctl(SocketContext* context, DWORD code, const IoctlBuffers& buffers,
                                  const CallerNotice& notice, LPINT error) {
    DWORD bytes = 0;
    if (buffers.BytesReturned != nullptr &&
        !GuardedCall([&]() noexcept { bytes = *buffers.BytesReturned; })) {
        *error = WSAEFAULT;
        return nullptr;
    }
    OverlappedOperation* const operation =
        PrepareOverlappedOperation(context, OverlappedType::kIoctl, notice, {}, error);
    if (operation == nullptr) return nullptr;
    operation->Ioctl = {code,           buffers.Input,        buffers.InputLength,
                        buffers.Output, buffers.OutputLength, bytes};
    return operation;
}

}  // namespace

int WSPAPI WSPIoctl(SOCKET s, DWORD code, LPVOID input, DWORD inputLength, LPVOID output, DWORD outputLength,
                    LPDWORD bytesReturned, LPWSAOVERLAPPED overlapped,
                    LPWSAOVERLAPPED_COMPLETION_ROUTINE completionRoutine, LPWSATHREADID threadId,
                    LPINT error) {
    *error = 0;
    const ContextReference context(s, error);
    if (!context) return SOCKET_ERROR;
    LspEntry* const provider = context->Provider;
    const IoctlBuffers buffers = {input, inputLength, output, outputLength, bytesReturned};

    if (code == SIO_GET_EXTENSION_FUNCTION_POINTER) {
        bool forward = false;
        const int result = AnswerExtensionQuery(context.Get(), buffers, &forward, error);
        if (!forward) return result;
    }
    const bool answersItself = code == SIO_QUERY_TARGET_PNP_HANDLE && provider->LowerIsLayered();
    if (answersItself) {
        if (output == nullptr || outputLength < sizeof(SOCKET) || bytesReturned == nullptr)
            return Fail(WSAEFAULT, error);
        if (AnswerWithWord(context->ProviderSocket, buffers, error) != 0) return SOCKET_ERROR;
        if (overlapped == nullptr) return 0;
    }
    if (overlapped != nullptr) {
        OverlappedOperation* const operation =
            PrepareIoctl(context.Get(), code, buffers, {overlapped, completionRoutine, threadId}, error);
        if (operation == nullptr) return SOCKET_ERROR;
        if (answersItself) {
            CompleteOverlappedOperation(0, sizeof(SOCKET), &operation->ProviderOverlapped, 0);
            return 0;
        }
        const Outcome queued = QueueOverlappedOperation(operation, context.Get());
        if (queued.Error != 0) return Fail(queued.Error, error);
        if (bytesReturned != nullptr) GuardedCall([&]() noexcept { *bytesReturned = queued.Bytes; });
        return 0;
    }
    return CallLower(provider, SOCKET_ERROR, error, [&]() noexcept {
        return provider->LowerProcedures.lpWSPIoctl(context->ProviderSocket, code, input, inputLength, output,
                                                    outputLength, bytesReturned, nullptr, completionRoutine,
                                                    threadId, error);
    });
}
