// System error codes and HRESULTs that the library, the stand-in or their tests use. The sockets interface's
// own codes (WSA...) stand in winsock2.h.
#pragma once

#include <windef.h>

#define NO_ERROR 0L
#define ERROR_SUCCESS 0L
#define ERROR_INVALID_FUNCTION 1L
#define ERROR_FILE_NOT_FOUND 2L
#define ERROR_PATH_NOT_FOUND 3L
#define ERROR_ACCESS_DENIED 5L
#define ERROR_INVALID_HANDLE 6L
#define ERROR_NOT_ENOUGH_MEMORY 8L
#define ERROR_GEN_FAILURE 31L
#define ERROR_SHARING_VIOLATION 32L
#define ERROR_HANDLE_EOF 38L
#define ERROR_NOT_SUPPORTED 50L
#define ERROR_NETNAME_DELETED 64L
#define ERROR_INVALID_PARAMETER 87L
#define ERROR_CALL_NOT_IMPLEMENTED 120L
#define ERROR_SEM_TIMEOUT 121L
#define ERROR_INSUFFICIENT_BUFFER 122L
#define ERROR_INVALID_NAME 123L
#define ERROR_MOD_NOT_FOUND 126L
#define ERROR_PROC_NOT_FOUND 127L
#define ERROR_MORE_DATA 234L
#define WAIT_TIMEOUT 258L
#define ERROR_NO_MORE_ITEMS 259L
#define ERROR_TOO_MANY_POSTS 298L
#define ERROR_ABANDONED_WAIT_0 735L
#define ERROR_OPERATION_ABORTED 995L
#define ERROR_IO_INCOMPLETE 996L
#define ERROR_IO_PENDING 997L
#define ERROR_NOACCESS 998L
#define ERROR_NO_UNICODE_TRANSLATION 1113L
#define ERROR_DLL_INIT_FAILED 1114L
#define ERROR_NOT_FOUND 1168L
#define ERROR_CONNECTION_REFUSED 1225L
#define ERROR_CONNECTION_ABORTED 1236L
#define ERROR_NETWORK_UNREACHABLE 1231L
#define ERROR_HOST_UNREACHABLE 1232L
#define ERROR_NONE_MAPPED 1332L
#define ERROR_INVALID_WINDOW_HANDLE 1400L
#define ERROR_NO_SYSTEM_RESOURCES 1450L
#define ERROR_TIMEOUT 1460L

#define S_OK static_cast<HRESULT>(0L)
#define S_FALSE static_cast<HRESULT>(1L)
#define E_FAIL static_cast<HRESULT>(0x80004005)
#define E_INVALIDARG static_cast<HRESULT>(0x80070057)
#define E_OUTOFMEMORY static_cast<HRESULT>(0x8007000E)
#define CRYPT_E_NO_MATCH static_cast<HRESULT>(0x80092009)
#define CRYPT_E_NOT_FOUND static_cast<HRESULT>(0x80092004)
#define CRYPT_E_INVALID_INDEX static_cast<HRESULT>(0x80091008)
#define CRYPT_E_INVALID_MSG_TYPE static_cast<HRESULT>(0x80091004)

#define SUCCEEDED(result) (static_cast<HRESULT>(result) >= 0)
#define FAILED(result) (static_cast<HRESULT>(result) < 0)
#define HRESULT_FROM_WIN32(error)                                   \
    (static_cast<HRESULT>(error) <= 0 ? static_cast<HRESULT>(error) \
                                      : static_cast<HRESULT>(((error)&0x0000FFFF) | 0x80070000))
