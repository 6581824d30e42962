// The reader/writer lock, and the one place that includes Boost. Several threads may hold it shared, or one
// exclusive; an exclusive hold can become a shared one without anybody in between. A thread never takes it
// shared twice: while a writer waits, new readers are kept out, and the second hold would wait for the writer
// that waits for the first.
#pragma once

// The interruption points of Boost's threads would need its compiled library; the lock needs its headers
// alone.
#ifndef BOOST_THREAD_DONT_PROVIDE_INTERRUPTIONS
#define BOOST_THREAD_DONT_PROVIDE_INTERRUPTIONS
#endif
#include <boost/thread/shared_mutex.hpp>

#include <exception>

#include "base/thread_annotations.h"

class QX_CAPABILITY("reader/writer lock") ReaderWriterLock {
  public:
    ReaderWriterLock() = default;
    ReaderWriterLock(const ReaderWriterLock&) = delete;
    ReaderWriterLock& operator=(const ReaderWriterLock&) = delete;

    void EnterShared() noexcept QX_ACQUIRE_SHARED() {
        Do([this] { mutex_.lock_shared(); });
    }
    void LeaveShared() noexcept QX_RELEASE_SHARED() {
        Do([this] { mutex_.unlock_shared(); });
    }
    void EnterExclusive() noexcept QX_ACQUIRE() {
        Do([this] { mutex_.lock(); });
    }
    void LeaveExclusive() noexcept QX_RELEASE() {
        Do([this] { mutex_.unlock(); });
    }

    /// Turns an exclusive hold into a shared one; nobody writes between the two.
    void Downgrade() noexcept QX_NO_THREAD_SAFETY_ANALYSIS {
        Do([this] { mutex_.unlock_and_lock_shared(); });
    }

  private:
    /// A lock that can't be taken or left is one that was destroyed: there is no going on.
    template <class Step>
    static void Do(Step step) noexcept {
        try {
            step();
        } catch (...) {
            std::terminate();
        }
    }

    boost::shared_mutex mutex_;
};

/// Scoped shared hold.
class QX_SCOPED_CAPABILITY SharedHold {
  public:
    explicit SharedHold(ReaderWriterLock& lock) QX_ACQUIRE_SHARED(lock) : lock_(lock) { lock.EnterShared(); }
    ~SharedHold() QX_RELEASE() { lock_.LeaveShared(); }
    SharedHold(const SharedHold&) = delete;
    SharedHold& operator=(const SharedHold&) = delete;

  private:
    ReaderWriterLock& lock_;
};

/// Scoped exclusive hold, which can become a shared one.
class QX_SCOPED_CAPABILITY ExclusiveHold {
  public:
    explicit ExclusiveHold(ReaderWriterLock& lock) QX_ACQUIRE(lock) : lock_(lock) { lock.EnterExclusive(); }
    ~ExclusiveHold() QX_RELEASE() QX_NO_THREAD_SAFETY_ANALYSIS {
        if (shared_) {
            lock_.LeaveShared();
        } else {
            lock_.LeaveExclusive();
        }
    }
    ExclusiveHold(const ExclusiveHold&) = delete;
    ExclusiveHold& operator=(const ExclusiveHold&) = delete;

    /// Goes on with a shared hold; nobody writes between the two. (The analysis goes on to take it for
    /// exclusive.)
    void Downgrade() {
        lock_.Downgrade();
        shared_ = true;
    }

  private:
    ReaderWriterLock& lock_;
    bool shared_ = false;
};
