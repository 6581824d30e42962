// The script and the record behind scripted_provider.h, and how its operations move bytes.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <iterator>
#include <map>
#include <mutex>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/scripted_provider.h"

inline std::string Bytes(const void* data, std::size_t size) {
    return data == nullptr ? std::string() : std::string(static_cast<const char*>(data), size);
}

inline std::string Gather(LPWSABUF buffers, DWORD count) {
    std::string all;
    for (DWORD i = 0; buffers != nullptr && i < count; ++i)
        all.append(buffers[i].buf, buffers[i].len);
    return all;
}

/// Copies as much as fits; the number of bytes copied.
inline DWORD Scatter(const std::string& data, const std::vector<WSABUF>& buffers) {
    std::size_t done = 0;
    for (const WSABUF& buffer : buffers) {
        const std::size_t part = std::min<std::size_t>(buffer.len, data.size() - done);
        if (part > 0) std::memcpy(buffer.buf, data.data() + done, part);
        done += part;
    }
    return static_cast<DWORD>(done);
}

inline std::vector<WSABUF> Copy(LPWSABUF buffers, DWORD count) {
    return buffers == nullptr ? std::vector<WSABUF>() : std::vector<WSABUF>(buffers, buffers + count);
}

inline DWORD Room(const std::vector<WSABUF>& buffers) {
    return std::accumulate(buffers.begin(), buffers.end(), DWORD{0}, [](DWORD sum, const WSABUF& buffer) {
        return sum + static_cast<DWORD>(buffer.len);
    });
}

/// Writes a value with a length that comes in as room and goes out as size.
template <class Length>
void GiveBack(const std::string& value, void* out, Length* length) {
    if (out == nullptr || length == nullptr) return;
    const std::size_t size = std::min<std::size_t>(value.size(), static_cast<std::size_t>(*length));
    if (size > 0) std::memcpy(out, value.data(), size);
    *length = static_cast<Length>(value.size());
}

/// What the module has been told to do and has been asked. One lock guards it; it is never held while a
/// reply's function, an upcall or a completion runs.
class ProviderScript final : public ScriptedProvider {
  public:
    void Reset() override {
        std::lock_guard<std::mutex> lock(mutex_);
        once_.clear();
        always_.clear();
        calls_.clear();
        pending_.clear();
        results_.clear();
        startError_ = 0;
        nullSlot_ = -1;
        version_ = MAKEWORD(2, 2);
        startups_ = cleanups_ = openSockets_ = 0;
    }

    void ScriptStartup(int error, int nullSlot, WORD version) override {
        std::lock_guard<std::mutex> lock(mutex_);
        startError_ = error;
        nullSlot_ = nullSlot;
        version_ = version;
    }

    void ReplyOnce(ProviderOperation operation, ProviderReply reply) override {
        std::lock_guard<std::mutex> lock(mutex_);
        once_[operation].push_back(std::move(reply));
    }

    void ReplyAlways(ProviderOperation operation, ProviderReply reply) override {
        std::lock_guard<std::mutex> lock(mutex_);
        always_[operation] = std::move(reply);
    }

    std::vector<ProviderCallRecord> Calls() override {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }

    std::vector<ProviderCallRecord> Calls(ProviderOperation operation) override {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<ProviderCallRecord> some;
        std::copy_if(calls_.begin(), calls_.end(), std::back_inserter(some),
                     [&](const ProviderCallRecord& record) { return record.operation == operation; });
        return some;
    }

    bool WaitForCalls(ProviderOperation operation, std::size_t count) override {
        std::unique_lock<std::mutex> lock(mutex_);
        const auto called = [&] {
            return static_cast<std::size_t>(
                       std::count_if(calls_.begin(), calls_.end(), [&](const ProviderCallRecord& record) {
                           return record.operation == operation;
                       })) >= count;
        };
        return changed_.wait_for(lock, std::chrono::seconds(10), called);
    }

    bool Complete(LPWSAOVERLAPPED overlapped, int error, const std::string& data, DWORD bytes) override {
        Pending request{};
        {
            std::lock_guard<std::mutex> lock(mutex_);
            const auto found = pending_.find(overlapped);
            if (found == pending_.end()) return false;
            request = found->second;
            pending_.erase(found);
        }
        Finish(request, overlapped, error, data, bytes);
        return true;
    }

    int Startups() override { return Read(startups_); }
    int Cleanups() override { return Read(cleanups_); }
    int OpenSockets() override { return Read(openSockets_); }
    WSPUPCALLTABLE Upcalls() override { return Read(upcalls_); }
    WSAPROTOCOL_INFOW StartupInfo() override { return Read(info_); }

    /// Records the call, waits out its reply's function, and gives the reply.
    ProviderReply Answer(ProviderCallRecord record) {
        record.threadId = GetCurrentThreadId();
        ProviderReply reply;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            calls_.push_back(record);
            changed_.notify_all();
            std::deque<ProviderReply>& waiting = once_[record.operation];
            if (!waiting.empty()) {
                reply = std::move(waiting.front());
                waiting.pop_front();
            } else if (always_.count(record.operation) != 0) {
                reply = always_[record.operation];
            }
        }
        if (reply.during) reply.during(record);
        return reply;
    }

    /// The outcome of a request whose data, if any, is received into `buffers`: 0 or the error.
    int Request(const ProviderCallRecord& record, const ProviderReply& reply, LPWSABUF buffers, DWORD count,
                DWORD bytes) {
        if (reply.error != 0 || record.overlapped == nullptr) return reply.error;
        const Pending request{record.socket, Copy(buffers, count)};
        if (reply.pending) {
            std::lock_guard<std::mutex> lock(mutex_);
            pending_[record.overlapped] = request;
            record.overlapped->Internal = WSS_OPERATION_IN_PROGRESS;
            return WSA_IO_PENDING;
        }
        Finish(request, record.overlapped, 0, reply.data, bytes);
        return 0;
    }

    /// The outcome of a finished request; false while it is under way.
    bool Result(LPWSAOVERLAPPED overlapped, int* error, DWORD* bytes) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (pending_.count(overlapped) != 0) return false;
        const auto found = results_.find(overlapped);
        *error = found == results_.end() ? 0 : found->second.error;
        *bytes = found == results_.end() ? 0 : found->second.bytes;
        return true;
    }

    SOCKET OpenSocket(LPINT error) {
        const WSAPROTOCOL_INFOW info = StartupInfo();
        const SOCKET s = Upcalls().lpWPUCreateSocketHandle(info.dwCatalogEntryId, 0, error);
        if (s == INVALID_SOCKET) return s;
        std::lock_guard<std::mutex> lock(mutex_);
        ++openSockets_;
        return s;
    }

    int CloseSocket(SOCKET s, LPINT error) {
        if (Upcalls().lpWPUCloseSocketHandle(s, error) != 0) return SOCKET_ERROR;
        std::lock_guard<std::mutex> lock(mutex_);
        --openSockets_;
        return 0;
    }

    /// Counts a start-up and describes the module; or the scripted error.
    int Startup(LPWSPDATA data, LPWSAPROTOCOL_INFOW info, const WSPUPCALLTABLE& upcalls) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (startError_ != 0) return startError_;
        upcalls_ = upcalls;
        info_ = *info;
        *data = {};
        data->wVersion = version_;
        data->wHighVersion = MAKEWORD(2, 2);
        const char description[] = "scripted";
        std::copy(std::begin(description), std::end(description), data->szDescription);
        ++startups_;
        return 0;
    }

    /// The entry of the table that is to be left out, or -1.
    int NullSlot() { return Read(nullSlot_); }

    void CountCleanup() {
        std::lock_guard<std::mutex> lock(mutex_);
        ++cleanups_;
    }

  private:
    struct Pending {
        SOCKET socket;
        std::vector<WSABUF> buffers;
    };

    struct Outcome {
        int error;
        DWORD bytes;
    };

    template <class Value>
    Value Read(const Value& value) {
        std::lock_guard<std::mutex> lock(mutex_);
        return value;
    }

    void Finish(const Pending& request, LPWSAOVERLAPPED overlapped, int error, const std::string& data,
                DWORD bytes) {
        if (!data.empty()) bytes = Scatter(data, request.buffers);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            results_[overlapped] = {error, bytes};
        }
        int ignored = 0;
        WPUCompleteOverlappedRequest(request.socket, overlapped, static_cast<DWORD>(error), bytes, &ignored);
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<ProviderOperation, std::deque<ProviderReply>> once_;
    std::map<ProviderOperation, ProviderReply> always_;
    std::vector<ProviderCallRecord> calls_;
    std::map<LPWSAOVERLAPPED, Pending> pending_;
    std::map<LPWSAOVERLAPPED, Outcome> results_;
    int startError_ = 0;
    int nullSlot_ = -1;
    WORD version_ = MAKEWORD(2, 2);
    int startups_ = 0;
    int cleanups_ = 0;
    int openSockets_ = 0;
    WSPUPCALLTABLE upcalls_{};
    WSAPROTOCOL_INFOW info_{};
};
