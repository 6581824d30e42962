// web_client winhttp|wininet URL: an unmodified program. It knows nothing of Winsock, let alone of a layer:
// the system's HTTP libraries use the sockets. Prints "STATUS BODY", or "failed ERROR", and exits with 0
// or 1.
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <string>

// The two libraries' headers cannot be included together.
int AskWinHttp(const std::wstring& host, unsigned short port, const std::wstring& path, std::string* body);
int AskWinInet(const std::string& url, std::string* body);

namespace {

struct Url {
    std::wstring host;
    unsigned short port = 80;
    std::wstring path = L"/";
};

/// "http://HOST[:PORT][/PATH]".
Url Parse(const std::string& text) {
    Url url;
    std::string rest = text.substr(std::strlen("http://"));
    const std::size_t slash = rest.find('/');
    if (slash != std::string::npos) url.path.assign(rest.begin() + static_cast<int>(slash), rest.end());
    rest = rest.substr(0, slash);
    const std::size_t colon = rest.find(':');
    if (colon != std::string::npos) url.port = static_cast<unsigned short>(std::stoi(rest.substr(colon + 1)));
    rest = rest.substr(0, colon);
    url.host.assign(rest.begin(), rest.end());
    return url;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    const Url url = Parse(argv[2]);
    std::string body;
    const bool winhttp = std::strcmp(argv[1], "winhttp") == 0;
    const int status = winhttp ? AskWinHttp(url.host, url.port, url.path, &body) : AskWinInet(argv[2], &body);
    if (status == 0) {
        std::printf("failed %lu\n", GetLastError());
        return 1;
    }
    std::printf("%d %s\n", status, body.c_str());
    return 0;
}
