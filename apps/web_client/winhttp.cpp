// See winhttp.cpp.
#include <windows.h>

#include <winhttp.h>

#include <string>

/// The status of one request with its body; 0 with the last error.
int AskWinHttp(const std::wstring& host, unsigned short port, const std::wstring& path, std::string* body) {
    const HINTERNET session = WinHttpOpen(L"web_client", WINHTTP_ACCESS_TYPE_NO_PROXY, nullptr, nullptr, 0);
    const HINTERNET connection = WinHttpConnect(session, host.c_str(), port, 0);
    const HINTERNET request =
        WinHttpOpenRequest(connection, L"GET", path.c_str(), nullptr, nullptr, nullptr, 0);
    DWORD status = 0;
    DWORD error = 0;
    if (WinHttpSendRequest(request, nullptr, 0, nullptr, 0, 0, 0) &&
        WinHttpReceiveResponse(request, nullptr)) {
        DWORD size = sizeof(status);
        WinHttpQueryHeaders(request, WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER, nullptr, &status,
                            &size, nullptr);
        char part[512];
        DWORD count = 0;
        while (WinHttpReadData(request, part, sizeof(part), &count) && count > 0)
            body->append(part, count);
    } else {
        error = GetLastError();
    }
    WinHttpCloseHandle(request);
    WinHttpCloseHandle(connection);
    WinHttpCloseHandle(session);
    SetLastError(error);
    return static_cast<int>(status);
}
