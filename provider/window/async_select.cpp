// WSPAsyncSelect: the application's window is remembered, and the lower provider is told the hidden one.
#include "provider/catalog/lower_call.h"
#include "provider/contexts/socket_context.h"
#include "provider/operation_failure.h"
#include "provider/operations/operations.h"
#include "provider/window/async_window.h"

int WSPAPI WSPAsyncSelect(SOCKET s, HWND window, unsigned int message, LONG events, LPINT error) {
    if (!IsWindow(window) || events > FD_ALL_EVENTS) return Fail(WSAEINVAL, error);
    const ContextReference context(s, error);
    if (!context) return SOCKET_ERROR;
    {
        const Locker lock(qx::GlobalLock);
        context->AsyncWindow = window;
        context->AsyncMessage = message;
    }
    const HWND hiddenWindow = StartAsyncWindow();
    if (hiddenWindow == nullptr) return Fail(WSAEINVAL, error);
    LspEntry* const provider = context->Provider;
    return CallLower(provider, SOCKET_ERROR, error, [&]() noexcept {
        return provider->LowerProcedures.lpWSPAsyncSelect(context->ProviderSocket, hiddenWindow,
                                                          kNetworkEventMessage, events, error);
    });
}
