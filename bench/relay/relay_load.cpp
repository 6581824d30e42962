// The application's side of the relay's benchmarks: bytes one way, round trips, new connections, and idle
// connections, on blocking sockets, as an application has them. It runs through the layer; which way its
// connections take is the caller's choice: a loopback port is connected to without a question, the public
// address 203.0.113.10:80 is asked about and leads to the destination's port.
//
//   relay_load bulk|ping|conn|idle PORT|public --analyzer PORT --destination PORT [--count N] [--milliseconds
//   N]
//
// The destination's first byte says what it does: 'B' counts until a 'Z' and answers with eight bytes, 'E'
// echoes, 'C' answers with one byte and closes, 'I' holds. One line of JSON is printed for each run.
#include <winsock2.h>

#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/provider/bench_sockets.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    std::string mode;
    std::string target;
    int analyzer = 0;
    int destination = 0;
    int count = 1000;
    int milliseconds = 500;
};

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

sockaddr_in TargetOf(const Options& options) {
    return options.target == "public"
               ? PublicAddress()
               : LoopbackAddress(static_cast<std::uint16_t>(std::stoi(options.target)));
}

SOCKET ConnectTo(const sockaddr_in& address) {
    const SOCKET s = NewBenchSocket(Through::kLayer);
    const int noDelay = 1;
    setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&noDelay), sizeof(noDelay));
    Check(connect(s, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, "connect");
    return s;
}

void SendAll(SOCKET s, const char* bytes, int count) {
    while (count > 0) {
        const int sent = send(s, bytes, count, 0);
        Check(sent > 0, "send");
        bytes += sent;
        count -= sent;
    }
}

void ReceiveAll(SOCKET s, char* bytes, int count) {
    while (count > 0) {
        const int received = recv(s, bytes, count, 0);
        Check(received > 0, "recv");
        bytes += received;
        count -= received;
    }
}

void Bulk(const Options& options) {
    const SOCKET s = ConnectTo(TargetOf(options));
    const std::vector<char> chunk(65536, 'B');
    std::uint64_t sent = 0;
    const auto start = Clock::now();
    while (SecondsSince(start) * 1000 < options.milliseconds) {
        SendAll(s, chunk.data(), static_cast<int>(chunk.size()));
        sent += chunk.size();
    }
    SendAll(s, "Z", 1);
    std::uint64_t counted = 0;
    ReceiveAll(s, reinterpret_cast<char*>(&counted), sizeof(counted));
    const double seconds = SecondsSince(start);
    Check(counted == sent + 1, "bytes are missing");
    std::printf("{\"mib_s\": %.1f}\n", static_cast<double>(counted) / seconds / 1048576);
    closesocket(s);
}

void Ping(const Options& options) {
    const SOCKET s = ConnectTo(TargetOf(options));
    char message[64];
    std::memset(message, 'E', sizeof(message));
    int count = 0;
    const auto start = Clock::now();
    for (; SecondsSince(start) * 1000 < options.milliseconds; ++count) {
        SendAll(s, message, sizeof(message));
        ReceiveAll(s, message, sizeof(message));
    }
    std::printf("{\"rt_s\": %.1f}\n", count / SecondsSince(start));
    closesocket(s);
}

void Connections(const Options& options) {
    const auto start = Clock::now();
    for (int i = 0; i < options.count; ++i) {
        const SOCKET s = ConnectTo(TargetOf(options));
        char byte = 'C';
        SendAll(s, &byte, 1);
        ReceiveAll(s, &byte, 1);
        Check(byte == 'c' && recv(s, &byte, 1, 0) == 0, "the end");
        closesocket(s);
    }
    std::printf("{\"conn_s\": %.1f}\n", options.count / SecondsSince(start));
}

/// Resident anonymous memory of this process in KiB.
long AnonymousMemory() {
    long kib = 0;
    char line[256];
    if (std::FILE* const file = std::fopen("/proc/self/smaps_rollup", "r")) {
        while (std::fgets(line, sizeof(line), file) != nullptr) {
            if (std::sscanf(line, "Anonymous: %ld", &kib) == 1) break;
        }
        std::fclose(file);
    }
    return kib;
}

/// Opens connections beside which the others of this run are made: new ones a second before and after.
void Idle(const Options& options) {
    const long before = AnonymousMemory();
    std::vector<SOCKET> held;
    for (int i = 0; i < options.count; ++i) {
        held.push_back(ConnectTo(TargetOf(options)));
        SendAll(held.back(), "I", 1);
    }
    Sleep(300);
    std::printf("{\"kib_each\": %.2f}\n",
                static_cast<double>(AnonymousMemory() - before) / static_cast<double>(options.count));
    Options few = options;
    few.count = 1000;
    Connections(few);
    for (const SOCKET s : held)
        closesocket(s);
}

bool Parse(int count, char** arguments, Options* options) {
    if (count < 3) return false;
    options->mode = arguments[1];
    options->target = arguments[2];
    for (int i = 3; i + 1 < count; i += 2) {
        const std::string name = arguments[i];
        const int value = std::atoi(arguments[i + 1]);
        if (name == "--analyzer") options->analyzer = value;
        if (name == "--destination") options->destination = value;
        if (name == "--count") options->count = value;
        if (name == "--milliseconds") options->milliseconds = value;
    }
    return true;
}

}  // namespace

int main(int count, char** arguments) {
    Options options;
    if (!Parse(count, arguments, &options)) {
        std::fprintf(stderr, "relay_load: see the head of its source for its arguments\n");
        return 2;
    }
    const auto destination = static_cast<std::uint16_t>(options.destination);
    if (!StartBenchMachine(static_cast<std::uint16_t>(options.analyzer), destination, destination)) return 2;
    if (options.mode == "bulk") Bulk(options);
    if (options.mode == "ping") Ping(options);
    if (options.mode == "conn") Connections(options);
    if (options.mode == "idle") Idle(options);
    StopBenchMachine();
    return 0;
}
