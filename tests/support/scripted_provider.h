// A base provider for tests that does what it is told: a loadable module whose operations record every call
// and answer from a script. It has no network behind it. Its sockets are handles that Winsock makes for it,
// so they can be associated with completion ports and receive completions like real ones.
//
// The test loads the module by path and steers it through ScriptedProvider; Winsock, or a layer above, loads
// the same module as a provider. Any thread may call. What is scripted stays until Reset or until the module
// is unloaded.
#pragma once

#include <winsock2.h>

#include <ws2spi.h>

#include <windows.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <iterator>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/provider_script.h"

/// What the module has been told to do and has been asked. The test calls these members on the module's own
/// object, so the two are built alike and share the runtime library. One lock guards it; it is never held
/// while a reply's function, an upcall or a completion runs.
class ScriptedProvider {
  public:
    // For the test.

    /// Forgets script, calls and counts. Requests still under way are forgotten, sockets are not closed.
    void Reset() {
        std::lock_guard<std::mutex> lock(mutex_);
        state_ = {};
    }

    /// What the next start-ups do: fail with `error`, leave one table slot null (-1: none), report a version.
    void ScriptStartup(int error, int nullSlot = -1, WORD version = MAKEWORD(2, 2)) {
        std::lock_guard<std::mutex> lock(mutex_);
        state_.startError = error;
        state_.nullSlot = nullSlot;
        state_.version = version;
    }

    /// The answer to the next call of the operation that has no earlier one waiting.
    void ReplyOnce(ProviderOperation operation, ProviderReply reply) {
        std::lock_guard<std::mutex> lock(mutex_);
        state_.operations[operation].once.push_back(std::move(reply));
    }

    /// The answer to all calls of the operation without a waiting one. Without any, the operation succeeds:
    /// sends take everything, receives deliver nothing, sockets are made and closed.
    void ReplyAlways(ProviderOperation operation, ProviderReply reply) {
        std::lock_guard<std::mutex> lock(mutex_);
        state_.operations[operation].always = std::move(reply);
    }

    /// The calls of the operation so far.
    std::vector<ProviderCallRecord> Calls(ProviderOperation operation) {
        std::lock_guard<std::mutex> lock(mutex_);
        return state_.operations[operation].calls;
    }

    /// Waits, at most ten seconds of real time, until the operation was called `count` times in all.
    bool WaitForCalls(ProviderOperation operation, std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10),
                                 [&] { return state_.operations[operation].calls.size() >= count; });
    }

    /// Ends the request that the provider was given with this record: `data` goes into a receive's buffers
    /// and its length is the count; a send's is all that it was given. False when no such request is under
    /// way.
    bool Complete(LPWSAOVERLAPPED overlapped, const std::string& data) {
        std::unique_lock<std::mutex> lock(mutex_);
        const auto found = state_.pending.extract(overlapped);
        lock.unlock();
        if (found.empty()) return false;
        Finish(found.mapped(), overlapped, data);
        return true;
    }

    /// Start-ups that succeeded, clean-ups, sockets that are open.
    int Startups() { return Read(state_.startups); }
    int Cleanups() { return static_cast<int>(Calls(ProviderOperation::kCleanup).size()); }
    int OpenSockets() { return Read(state_.openSockets); }

    /// What the last start-up was given.
    WSPUPCALLTABLE Upcalls() { return Read(upcalls_); }
    WSAPROTOCOL_INFOW StartupInfo() { return Read(info_); }
    WORD StartupVersion() { return Read(wanted_); }

    // For the module's operations.

    /// Records the call, waits out its reply's function, and gives the reply.
    ProviderReply Answer(const ProviderCallRecord& record) {
        ProviderReply reply;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            Operation& operation = state_.operations[record.operation];
            operation.calls.push_back(record);
            changed_.notify_all();
            if (operation.once.empty()) {
                reply = operation.always;
            } else {
                reply = std::move(operation.once.front());
                operation.once.pop_front();
            }
        }
        if (reply.during) reply.during(record);
        return reply;
    }

    /// The outcome of a request that receives into `buffers`, or of a send, which has none: 0, with the count
    /// in `*transferred` where that is asked for, or the error.
    int Request(const ProviderCallRecord& record, const ProviderReply& reply,
                const std::vector<WSABUF>& buffers, LPDWORD transferred) {
        if (reply.error != 0) return reply.error;
        const Pending request{record.socket, buffers, static_cast<DWORD>(record.data.size())};
        if (reply.pending && record.overlapped != nullptr) {
            std::lock_guard<std::mutex> lock(mutex_);
            state_.pending[record.overlapped] = request;
            record.overlapped->Internal = WSS_OPERATION_IN_PROGRESS;
            return WSA_IO_PENDING;
        }
        const DWORD bytes = Finish(request, record.overlapped, reply.data);
        if (transferred != nullptr) *transferred = bytes;
        return 0;
    }

    SOCKET OpenSocket(LPINT error) {
        const WSAPROTOCOL_INFOW info = StartupInfo();
        const SOCKET s = Upcalls().lpWPUCreateSocketHandle(info.dwCatalogEntryId, 0, error);
        if (s == INVALID_SOCKET) return s;
        std::lock_guard<std::mutex> lock(mutex_);
        ++state_.openSockets;
        return s;
    }

    int CloseSocket(SOCKET s, LPINT error) {
        if (Upcalls().lpWPUCloseSocketHandle(s, error) != 0) return SOCKET_ERROR;
        std::lock_guard<std::mutex> lock(mutex_);
        --state_.openSockets;
        return 0;
    }

    /// Counts a start-up and describes the module; or the scripted error.
    int Startup(WORD version, LPWSPDATA data, LPWSAPROTOCOL_INFOW info, const WSPUPCALLTABLE& upcalls) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (state_.startError != 0) return state_.startError;
        wanted_ = version;
        upcalls_ = upcalls;
        info_ = *info;
        *data = {};
        data->wVersion = state_.version;
        data->wHighVersion = MAKEWORD(2, 2);
        const char description[] = "scripted";
        std::copy(std::begin(description), std::end(description), data->szDescription);
        ++state_.startups;
        return 0;
    }

    /// The entry of the table that is to be left out, or -1.
    int NullSlot() { return Read(state_.nullSlot); }

  private:
    struct Operation {
        std::deque<ProviderReply> once;
        ProviderReply always;
        std::vector<ProviderCallRecord> calls;
    };

    struct Pending {
        SOCKET socket;
        std::vector<WSABUF> buffers;
        DWORD sent;
    };

    struct State {
        std::map<ProviderOperation, Operation> operations;
        std::map<LPWSAOVERLAPPED, Pending> pending;
        int startError = 0;
        int nullSlot = -1;
        WORD version = MAKEWORD(2, 2);
        int startups = 0;
        int openSockets = 0;
    };

    template <class Value>
    Value Read(const Value& value) {
        std::lock_guard<std::mutex> lock(mutex_);
        return value;
    }

    // The count: what was sent, or as much of the data as fits into the buffers.
    static DWORD Finish(const Pending& request, LPWSAOVERLAPPED overlapped, const std::string& data) {
        std::size_t done = request.buffers.empty() ? request.sent : 0;
        for (const WSABUF& buffer : request.buffers) {
            const std::size_t part = std::min<std::size_t>(buffer.len, data.size() - done);
            if (part > 0) std::memcpy(buffer.buf, data.data() + done, part);
            done += part;
        }
        const auto bytes = static_cast<DWORD>(done);
        int ignored = 0;
        if (overlapped != nullptr)
            WPUCompleteOverlappedRequest(request.socket, overlapped, 0, bytes, &ignored);
        return bytes;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    State state_;
    // A provider that is started needs these beyond a Reset, to close its sockets.
    WSPUPCALLTABLE upcalls_{};
    WSAPROTOCOL_INFOW info_{};
    WORD wanted_ = 0;
};

/// Keeps the module loaded and gives access to it.
class ScriptedProviderModule {
  public:
    ScriptedProviderModule();
    ~ScriptedProviderModule();
    ScriptedProviderModule(const ScriptedProviderModule&) = delete;
    ScriptedProviderModule& operator=(const ScriptedProviderModule&) = delete;

    ScriptedProvider* operator->() const { return provider_; }
    ScriptedProvider& operator*() const { return *provider_; }

    /// The module's path, for a catalog.
    static std::basic_string<WCHAR> Path();

  private:
    HMODULE module_;
    ScriptedProvider* provider_;
};
