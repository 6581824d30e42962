// A thread that is ended while it begins crashes its process under 32-bit Wine 8: ntdll's handler for the end
// of a thread (quit_handler) loads the register gs from the thread's record, which is filled only after the
// thread has announced itself to the server. On a busy machine a short test is over before the test
// framework's own thread, which watches each thread that a trace or a failure is kept for, has come that far.
// So the end waits for all threads to have begun.
#include <winsock2.h>

#include <windows.h>

#include <gtest/gtest.h>
#include <tlhelp32.h>

namespace {

/// The registers of a suspended thread can be read as soon as it has begun, and not before.
void WaitUntilBegun(DWORD id) {
    const HANDLE thread = OpenThread(THREAD_SUSPEND_RESUME | THREAD_GET_CONTEXT, FALSE, id);
    if (thread == nullptr) return;
    CONTEXT context{};
    context.ContextFlags = CONTEXT_CONTROL;
    SuspendThread(thread);
    GetThreadContext(thread, &context);
    ResumeThread(thread);
    CloseHandle(thread);
}

class BegunThreads : public ::testing::Environment {
  public:
    void TearDown() override {
        const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
        ASSERT_NE(snapshot, INVALID_HANDLE_VALUE);
        THREADENTRY32 entry{};
        entry.dwSize = sizeof(entry);
        for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry)) {
            const bool isOwn = entry.th32OwnerProcessID == GetCurrentProcessId();
            if (isOwn && entry.th32ThreadID != GetCurrentThreadId()) WaitUntilBegun(entry.th32ThreadID);
        }
        CloseHandle(snapshot);
    }
};

const ::testing::Environment* const Begun = ::testing::AddGlobalTestEnvironment(new BegunThreads);

}  // namespace
