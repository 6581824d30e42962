// See bench_sockets.h.
#include "bench/provider/bench_sockets.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/testing/machine.h"

namespace {

std::string appData;
WSAPROTOCOL_INFOW baseStream;
WSAPROTOCOL_INFOW baseDatagram;

bool FindBaseEntries() {
    DWORD size = 0;
    WSAEnumProtocolsW(nullptr, nullptr, &size);
    std::vector<unsigned char> buffer(size);
    auto* entries = reinterpret_cast<WSAPROTOCOL_INFOW*>(buffer.data());
    const int count = WSAEnumProtocolsW(nullptr, entries, &size);
    int found = 0;
    for (int i = 0; i < count; ++i) {
        if (entries[i].ProtocolChain.ChainLen != BASE_PROTOCOL || entries[i].iAddressFamily != AF_INET)
            continue;
        if (entries[i].iSocketType == SOCK_STREAM) baseStream = entries[i], ++found;
        if (entries[i].iSocketType == SOCK_DGRAM) baseDatagram = entries[i], ++found;
    }
    return found == 2;
}

}  // namespace

void Check(bool condition, const char* what) {
    if (condition) return;
    std::fprintf(stderr, "%s: Winsock error %d\n", what, WSAGetLastError());
    std::exit(2);
}

bool StartBenchMachine(std::uint16_t analyzerPort, std::uint16_t destinationPort, std::uint16_t sinkPort) {
    char folder[] = "/tmp/qxbench-XXXXXX";
    if (mkdtemp(folder) == nullptr) return false;
    appData = folder;
    const std::filesystem::path portFile = appData + "/VantrexSoftware/Talvessa/p_info";
    std::filesystem::create_directories(portFile.parent_path());
    const std::uint32_t port = analyzerPort;
    std::ofstream(portFile, std::ios::binary).write(reinterpret_cast<const char*>(&port), sizeof(port));

    std::string message;
    const std::string text =
        "[catalog]\nlayer = 'default'\n[folders]\ncommon_app_data = '" + appData +
        "'\n[[routes]]\ndestination = '203.0.113.10:80'\ntarget = '127.0.0.1:" +
        std::to_string(destinationPort) +
        "'\n[[routes]]\ndestination = '203.0.113.11:80'\ntarget = '127.0.0.1:" + std::to_string(sinkPort) +
        "'\n";
    auto machine = platform::ParseMachine(text, "benchmark", &message);
    if (machine == nullptr) {
        std::fprintf(stderr, "%s\n", message.c_str());
        return false;
    }
    platform::SetMachineForTest(*machine);
    WSADATA data;
    if (WSAStartup(MAKEWORD(2, 2), &data) != 0) return false;
    return FindBaseEntries();
}

void StopBenchMachine() {
    WSACleanup();
    std::error_code ignored;
    std::filesystem::remove_all(appData, ignored);
}

sockaddr_in PublicAddress() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(80);
    address.sin_addr.s_addr = inet_addr("203.0.113.10");
    return address;
}

sockaddr_in PublicSinkAddress() {
    sockaddr_in address = PublicAddress();
    address.sin_addr.s_addr = inet_addr("203.0.113.11");
    return address;
}

sockaddr_in LoopbackAddress(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

SOCKET NewBenchSocket(Through through, int type) {
    WSAPROTOCOL_INFOW* entry = type == SOCK_STREAM ? &baseStream : &baseDatagram;
    const SOCKET s = WSASocketW(AF_INET, type, type == SOCK_STREAM ? IPPROTO_TCP : IPPROTO_UDP,
                                through == Through::kBase ? entry : nullptr, 0, WSA_FLAG_OVERLAPPED);
    Check(s != INVALID_SOCKET, "WSASocketW");
    return s;
}

SOCKET ConnectedBenchSocket(Through through, const sockaddr_in& address) {
    const SOCKET s = NewBenchSocket(through);
    Check(connect(s, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, "connect");
    const int on = 1;
    Check(setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof(on)) == 0,
          "setsockopt");
    return s;
}

SOCKET ConnectedBenchSocket(Through through, std::uint16_t port) {
    return ConnectedBenchSocket(through, LoopbackAddress(port));
}
