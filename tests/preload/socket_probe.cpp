// Uses sockets in every way that the layer has to keep, against itself at 127.0.0.1, and prints what it sees.
// Run bare and through the layer it has to print the same, so it prints nothing that differs between two
// runs.
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

/// Prints a step's name, its result, and its error if it failed.
template <class Value>
Value Say(const char* step, Value value) {
    if (value < 0) {
        std::printf("  %s: %s\n", step, strerrorname_np(errno));
    } else {
        std::printf("  %s: %lld\n", step, static_cast<long long>(value));
    }
    return value;
}

void SayDone(const char* step, int result) {
    Say(step, result < 0 ? result : 0);
}

sockaddr_in Loopback(in_port_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = port;
    return address;
}

const sockaddr* Plain(const sockaddr_in& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

sockaddr_in NameOf(int fd) {
    sockaddr_in name = {};
    socklen_t length = sizeof(name);
    getsockname(fd, reinterpret_cast<sockaddr*>(&name), &length);
    return name;
}

int Bound(int type) {
    const int fd = socket(AF_INET, type, 0);
    const sockaddr_in any = Loopback(0);
    bind(fd, Plain(any), sizeof(any));
    return fd;
}

int Listener() {
    const int fd = Bound(SOCK_STREAM);
    listen(fd, 16);
    return fd;
}

int ConnectTo(int fd, int listener) {
    const sockaddr_in name = NameOf(listener);
    return connect(fd, Plain(name), sizeof(name));
}

struct Pair {
    int client;
    int server;

    Pair() {
        const int listener = Listener();
        client = socket(AF_INET, SOCK_STREAM, 0);
        ConnectTo(client, listener);
        server = accept(listener, nullptr, nullptr);
        close(listener);
    }
    ~Pair() {
        close(client);
        close(server);
    }
};

/// The events that poll reports within a time that is long enough.
int Wait(int fd, short events) {
    pollfd entry = {fd, events, 0};
    return poll(&entry, 1, 20000) < 0 ? -1 : entry.revents;
}

int ErrorOf(int fd) {
    int error = -1;
    socklen_t length = sizeof(error);
    getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
    return error;
}

std::string Read(int fd, std::size_t size) {
    std::string text(size, 0);
    const ssize_t got = recv(fd, text.data(), size, MSG_WAITALL);
    return got < 0 ? strerrorname_np(errno) : text.substr(0, static_cast<std::size_t>(got));
}

void SayText(const char* step, const std::string& text) {
    std::printf("  %s: \"%s\"\n", step, text.c_str());
}

// ---- What is tried

void NonBlockingConnect() {
    const int listener = Listener();
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    SayDone("connect", ConnectTo(fd, listener));
    Say("writable", Wait(fd, POLLOUT));
    Say("error", ErrorOf(fd));
    SayDone("connect again", ConnectTo(fd, listener));
    SayDone("and again", ConnectTo(fd, listener));
    const int accepted = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    Say("blocks", fcntl(accepted, F_GETFL) & O_NONBLOCK);
    Say("closes on exec", fcntl(accepted, F_GETFD));
    char byte;
    Say("nothing there", recv(accepted, &byte, 1, 0));
    fcntl(listener, F_SETFL, O_NONBLOCK);
    Say("nobody comes", accept4(listener, nullptr, nullptr, SOCK_NONBLOCK));
    close(accepted);
    close(fd);
    close(listener);
}

void Names() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    Say("port without a name", ntohs(NameOf(fd).sin_port));
    sockaddr_in peer = {};
    socklen_t length = sizeof(peer);
    SayDone("no peer", getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length));
    SayDone("listen without a name", listen(fd, 5));
    Say("has a port", NameOf(fd).sin_port != 0 ? 1 : 0);
    SayDone("bind then", bind(fd, Plain(Loopback(0)), sizeof(sockaddr_in)));
    const int taker = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in taken = NameOf(fd);
    SayDone("bind to a port in use", bind(taker, Plain(taken), sizeof(taken)));
    SayDone("bind a short name", bind(taker, Plain(taken), 4));
    SayDone("connect nowhere", connect(taker, nullptr, sizeof(taken)));
    sockaddr_in other = taken;
    other.sin_family = AF_UNIX;
    SayDone("connect another family", connect(taker, Plain(other), sizeof(other)));
    close(taker);
    close(fd);
    const Pair pair;
    length = 4;
    SayDone("peer in little room", getpeername(pair.client, reinterpret_cast<sockaddr*>(&peer), &length));
    Say("its length", length);
    length = sizeof(peer);
    getpeername(pair.client, reinterpret_cast<sockaddr*>(&peer), &length);
    const bool isRight =
        peer.sin_port == NameOf(pair.server).sin_port && peer.sin_addr.s_addr == htonl(INADDR_LOOPBACK);
    Say("peer is where it connected", isRight ? 1 : 0);
}

void Transfers() {
    Pair pair;
    char first[] = "first ", second[] = "second";
    iovec parts[] = {{first, 6}, {second, 6}};
    Say("writev", writev(pair.client, parts, 2));
    SayText("all of it", Read(pair.server, 12));
    Say("write", write(pair.client, "peeked", 6));
    char buffer[16] = {};
    Say("wait", Wait(pair.server, POLLIN));
    Say("peek", recv(pair.server, buffer, 3, MSG_PEEK));
    int there = 0;
    ioctl(pair.server, FIONREAD, &there);
    Say("there", there);
    iovec room[] = {{buffer, 2}, {buffer + 2, 10}};
    Say("readv", readv(pair.server, room, 2));
    SayText("read", std::string(buffer, 6));
    Say("urgent", send(pair.client, "!", 1, MSG_OOB));
    Say("would block", recv(pair.server, buffer, 1, MSG_DONTWAIT | MSG_OOB) < 0 ? 0 : 0);
    const int copy = dup(pair.client);
    close(pair.client);
    pair.client = copy;
    Say("through a copy", write(copy, "copy", 4));
    SayDone("no more", shutdown(pair.client, SHUT_WR));
    std::string rest;
    for (ssize_t got; (got = read(pair.server, buffer, sizeof(buffer))) > 0;)
        rest.append(buffer, static_cast<std::size_t>(got));
    SayText("copy's", rest.substr(rest.size() > 4 ? rest.size() - 4 : 0));
    std::signal(SIGPIPE, SIG_IGN);
    Say("send behind that", send(pair.client, "x", 1, 0));
    Say("the other way", write(pair.server, "back", 4));
    SayText("back", Read(pair.client, 4));
}

void LargeTransfer() {
    const Pair pair;
    constexpr std::size_t kSize = 8 << 20;
    std::vector<char> sent(kSize);
    for (std::size_t i = 0; i < kSize; ++i)
        sent[i] = static_cast<char>(i * 7 + i / 251);
    std::thread sender([&] {
        Say("send everything", send(pair.client, sent.data(), kSize, 0));
        shutdown(pair.client, SHUT_WR);
    });
    std::vector<char> got(kSize + 1);
    const ssize_t received = recv(pair.server, got.data(), got.size(), MSG_WAITALL);
    sender.join();
    Say("received", received);
    Say("the same", std::memcmp(sent.data(), got.data(), kSize) == 0 ? 1 : 0);
}

void Files() {
    const Pair pair;
    std::FILE* const file = std::tmpfile();
    std::fputs("0123456789", file);
    std::fflush(file);
    const int in = fileno(file);
    off_t offset = 4;
    Say("sendfile", sendfile(pair.client, in, &offset, 100));
    Say("offset", offset);
    SayText("sent", Read(pair.server, 6));
    int ends[2];
    if (pipe(ends) != 0) return;
    Say("into a pipe", write(ends[1], "spliced", 7));
    Say("splice out", splice(ends[0], nullptr, pair.client, nullptr, 100, 0));
    Say("splice in", splice(pair.server, nullptr, ends[1], nullptr, 7, 0));
    char buffer[8] = {};
    Say("out of it", read(ends[0], buffer, 7));
    SayText("spliced", buffer);
    std::fclose(file);
    close(ends[0]);
    close(ends[1]);
}

void Ends() {
    {
        Pair pair;
        const linger hard = {1, 0};
        setsockopt(pair.server, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
        close(pair.server);
        pair.server = -1;
        Say("reset", Wait(pair.client, POLLIN) & (POLLIN | POLLERR));
        char byte;
        Say("told", recv(pair.client, &byte, 1, 0));
        Say("told once", recv(pair.client, &byte, 1, 0));
        Say("then a pipe", send(pair.client, "x", 1, MSG_NOSIGNAL));
    }
    const int nobody = Bound(SOCK_STREAM);
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    SayDone("nobody listens", ConnectTo(fd, nobody));
    SayDone("asked again", ConnectTo(fd, nobody));
    SayDone("shut without a connection", shutdown(fd, SHUT_RDWR));
    char byte;
    Say("receive without one", recv(fd, &byte, 1, 0));
    close(fd);
    close(nobody);
    SayDone("closed", close(fd));
}

void OnSignal(int) {}

void Signals() {
    const Pair pair;
    timeval limit = {0, 30000};
    setsockopt(pair.server, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    char byte;
    Say("time-out", recv(pair.server, &byte, 1, 0));
    limit = {};
    setsockopt(pair.server, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    for (const bool restarts : {false, true}) {
        struct sigaction action = {};
        action.sa_handler = OnSignal;
        action.sa_flags = restarts ? SA_RESTART : 0;
        sigaction(SIGUSR1, &action, nullptr);
        const pthread_t reader = pthread_self();
        std::atomic<bool> over{false};
        std::thread disturber([&] {
            // One may come before the wait; where the call goes on, some will come into it.
            for (int i = 0; !over && (!restarts || i < 20); ++i) {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
                pthread_kill(reader, SIGUSR1);
            }
            if (!over) send(pair.client, "x", 1, 0);
        });
        Say(restarts ? "goes on" : "interrupted", recv(pair.server, &byte, 1, 0));
        over = true;
        disturber.join();
    }
    std::signal(SIGUSR1, SIG_DFL);
}

void Datagrams() {
    const int a = Bound(SOCK_DGRAM);
    const int b = Bound(SOCK_DGRAM);
    const sockaddr_in to = NameOf(b);
    Say("to", sendto(a, "datagram", 8, 0, Plain(to), sizeof(to)));
    char buffer[32] = {};
    iovec room = {buffer, 4};
    sockaddr_in from = {};
    msghdr message = {};
    message.msg_name = &from;
    message.msg_namelen = sizeof(from);
    message.msg_iov = &room;
    message.msg_iovlen = 1;
    Say("cut", recvmsg(b, &message, 0));
    Say("says so", message.msg_flags & MSG_TRUNC);
    Say("from the right one", from.sin_port == NameOf(a).sin_port ? 1 : 0);
    Say("whole length", (sendto(a, "datagram", 8, 0, Plain(to), sizeof(to)), recv(b, buffer, 1, MSG_TRUNC)));
    Say("empty", sendto(a, "", 0, 0, Plain(to), sizeof(to)));
    Say("empty comes", recv(b, buffer, sizeof(buffer), 0));
    mmsghdr several[2] = {};
    iovec parts[2] = {{buffer, 3}, {buffer + 3, 5}};
    for (int i = 0; i < 2; ++i) {
        several[i].msg_hdr.msg_iov = &parts[i];
        several[i].msg_hdr.msg_iovlen = 1;
    }
    SayDone("connect", connect(a, Plain(to), sizeof(to)));
    Say("two at once", sendmmsg(a, several, 2, 0));
    Say("come at once", recvmmsg(b, several, 2, MSG_WAITFORONE, nullptr) > 0 ? 1 : 0);
    while (recv(b, buffer, sizeof(buffer), MSG_DONTWAIT) >= 0) {
    }
    close(b);
    Say("nobody takes it", send(a, "x", 1, 0));
    Say("told", Wait(a, POLLIN) & POLLERR ? recv(a, buffer, 1, MSG_DONTWAIT) : 0);
    close(a);
}

void Descriptors() {
    Pair pair;
    const int lowest = socket(AF_INET, SOCK_STREAM, 0);
    close(lowest);
    Say("lowest again", socket(AF_INET, SOCK_STREAM, 0) == lowest ? 1 : 0);
    close(lowest);
    const int high = fcntl(pair.client, F_DUPFD_CLOEXEC, 200);
    Say("duplicate", high >= 200 ? 1 : 0);
    Say("over another", dup2(pair.client, lowest) == lowest ? 1 : 0);
    int on = 1;
    ioctl(high, FIONBIO, &on);
    Say("mode is shared", fcntl(lowest, F_GETFL) & O_NONBLOCK);
    char byte;
    Say("would block", read(lowest, &byte, 1));
    close(high);
    close(pair.client);
    pair.client = lowest;
    Say("still open", write(pair.server, "o", 1));
    Say("readable", Wait(lowest, POLLIN));
    Say("read", read(lowest, &byte, 1));
    // Whoever closes everything means his own.
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    close_range(static_cast<unsigned>(lowest) + 1, ~0U, 0);
    for (int fd = lowest + 1; fd < 3000 && fd < static_cast<int>(limit.rlim_cur); ++fd)
        close(fd);
    pair.server = -1;
    const Pair another;
    Say("another one works", write(another.client, "a", 1));
    SayText("a", Read(another.server, 1));
}

void Events() {
    const Pair pair;
    const int events = epoll_create1(0);
    epoll_event want = {EPOLLIN | EPOLLET, {}};
    epoll_ctl(events, EPOLL_CTL_ADD, pair.server, &want);
    epoll_event got = {};
    Say("nothing", epoll_wait(events, &got, 1, 0));
    Say("send", send(pair.client, "event", 5, 0));
    Say("an edge", epoll_wait(events, &got, 1, 20000));
    char buffer[8];
    Say("read some", read(pair.server, buffer, 2));
    Say("no edge", epoll_wait(events, &got, 1, 0));
    fd_set set;
    FD_ZERO(&set);
    FD_SET(pair.server, &set);
    Say("select", select(pair.server + 1, &set, nullptr, nullptr, nullptr));
    close(events);
}

int InChild(int (*body)(void* argument), void* argument) {
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) std::exit(body(argument));
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

void Forks() {
    Pair pair;
    int fresh = socket(AF_INET, SOCK_STREAM, 0);
    std::pair<Pair*, int> both(&pair, fresh);
    const auto child = [](void* argument) {
        auto& inherited = *static_cast<std::pair<Pair*, int>*>(argument);
        Say("the child sends", write(inherited.first->client, "child", 5));
        // One that it was born with, and one of its own.
        const int listener = Listener();
        SayDone("the child connects", ConnectTo(inherited.second, listener));
        const int accepted = accept(listener, nullptr, nullptr);
        Say("to itself", write(accepted, "i", 1));
        SayText("i", Read(inherited.second, 1));
        return 7;
    };
    Say("the child's end", WEXITSTATUS(InChild(child, &both)));
    SayText("from the child", Read(pair.server, 5));
    Say("its parent goes on", write(pair.client, "parent", 6));
    SayText("from the parent", Read(pair.server, 6));
    close(fresh);
    Say("a child without sockets", WEXITSTATUS(InChild([](void*) { return 3; }, nullptr)));
}

struct Scene {
    const char* name;
    void (*play)();
};

constexpr Scene kScenes[] = {
    {"non-blocking connect", NonBlockingConnect},
    {"names", Names},
    {"transfers", Transfers},
    {"a large transfer", LargeTransfer},
    {"files", Files},
    {"ends", Ends},
    {"signals", Signals},
    {"datagrams", Datagrams},
    {"descriptors", Descriptors},
    {"events", Events},
    {"forks", Forks},
};

}  // namespace

int main() {
    for (const Scene& scene : kScenes) {
        std::printf("%s\n", scene.name);
        scene.play();
        std::fflush(stdout);
    }
    return 0;
}
