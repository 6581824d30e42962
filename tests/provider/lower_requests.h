// A lower provider whose overlapped requests end when and how the test says, in place of the one that
// FakeWinsock has. Its sockets are handles of the system, so that they can be on a completion port.
#pragma once

#include <winsock2.h>
#include <ws2spi.h>

#include <mswsock.h>

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "provider/catalog/lsp_entry.h"
#include "provider/overlapped/overlapped_operation.h"

/// A call as it came down. Calls without a record are kept as well.
struct LowerRequest {
    OverlappedType type;
    SOCKET socket;
    SOCKET accepting = INVALID_SOCKET;
    LPWSAOVERLAPPED record = nullptr;
    LPWSAOVERLAPPED_COMPLETION_ROUTINE routine = nullptr;
    DWORD offset = 0;  ///< the record's position
    DWORD offsetHigh = 0;
    bool ended = false;
    std::string name = {};  ///< of a ConnectEx, as DescribeName writes it
};

/// The answer of a lower call, and the end of a request, that fails and names no error.
constexpr int kFailsWithoutError = -1;

class LowerRequests {
  public:
    /// Puts its operations and extension functions into an entry. One object at a time per process.
    static void ServeEntry(LspEntry& entry);

    LowerRequests();
    ~LowerRequests();
    LowerRequests(const LowerRequests&) = delete;
    LowerRequests& operator=(const LowerRequests&) = delete;

    /// What calls from now on do: 0 they succeed at once, WSA_IO_PENDING they are under way until End, or
    /// they fail. Those that succeed at once report `kBytesAtOnce`.
    void Answer(int answer) {
        const std::lock_guard<std::mutex> lock(mutex_);
        answer_ = answer;
    }
    static constexpr DWORD kBytesAtOnce = 5;

    /// Runs inside the next call, before it answers.
    void DuringNext(std::function<void()> during) {
        const std::lock_guard<std::mutex> lock(mutex_);
        during_ = std::move(during);
    }

    std::size_t Count() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return calls_.size();
    }

    /// Waits, at most twenty seconds, until so many calls have come down. The last of them.
    LowerRequest WaitFor(std::size_t count);

    /// Ends a request: 0 with a count, or an error.
    void End(std::size_t index, DWORD bytes, int error);

    /// Ends what is under way on the socket as its close does.
    void EndAll(SOCKET s);

    // For the operations.
    /// 0, WSA_IO_PENDING or the error; `*bytes`, unless null, is written with 0.
    int Take(LowerRequest call, LPDWORD bytes);
    void Opened(SOCKET s, int type);

  private:
    bool IsStream(SOCKET s);
    void FinishAtOnce(const LowerRequest& request);
    static void Finish(const LowerRequest& request, DWORD bytes, int error);

    std::mutex mutex_;  // never held while a completion runs
    int answer_ = WSA_IO_PENDING;
    std::vector<LowerRequest> calls_;
    std::map<SOCKET, int> types_;
    std::function<void()> during_;
};
