// See wininet.cpp.
#include <windows.h>

#include <wininet.h>

#include <string>

/// The status of one request with its body; 0 with the last error.
int AskWinInet(const std::string& url, std::string* body) {
    const HINTERNET session = InternetOpenA("web_client", INTERNET_OPEN_TYPE_DIRECT, nullptr, nullptr, 0);
    const HINTERNET request = InternetOpenUrlA(session, url.c_str(), nullptr, 0,
                                               INTERNET_FLAG_RELOAD | INTERNET_FLAG_NO_CACHE_WRITE, 0);
    DWORD status = 0;
    const DWORD error = request == nullptr ? GetLastError() : 0;
    if (request != nullptr) {
        DWORD size = sizeof(status);
        HttpQueryInfoA(request, HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, &status, &size, nullptr);
        char part[512];
        DWORD count = 0;
        while (InternetReadFile(request, part, sizeof(part), &count) && count > 0)
            body->append(part, count);
        InternetCloseHandle(request);
    }
    InternetCloseHandle(session);
    SetLastError(error);
    return static_cast<int>(status);
}
