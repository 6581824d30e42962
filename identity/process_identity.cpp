// The collection thread's life. It holds a reference on the library, so nobody unloads the library under a
// thread that still runs in it.
#include "identity/process_identity.h"

#include <cstddef>
#include <exception>
#include <utility>

#include "base/atomic.h"
#include "base/locker.h"
#include "base/this_library.h"
#include "base/trace.h"
#include "messages/text_cut.h"
#include "provider/guarded_sockets.h"
#include "provider/process_state.h"

char MainWindowTitle[256] = "<Unknown>";
char ImageSignerSubject[kMaxStringLength + 1] = "<Unknown>";

namespace {

constexpr DWORD kPatienceMilliseconds = 500;

HANDLE CollectionThread = nullptr;  // under GlobalLock
Atomic<bool> Collecting;            // set under GlobalLock, cleared by the thread

template <std::size_t size>
void CopyText(const std::string& text, char (&destination)[size]) {
    destination[text.copy(destination, FittingLength(text, size - 1))] = 0;
}

/// The thread, which keeps the library loaded for as long as it runs: it asks other programs' windows and the
/// system's certificate code, where nobody can tell when it comes back, nor end it without harm.
DWORD WINAPI CollectionProcedure(LPVOID library) {
    CollectProcessInfo(nullptr);
    Collecting = false;
    FreeLibraryAndExitThread(static_cast<HMODULE>(library), 0);
}

}  // namespace

DWORD WINAPI CollectProcessInfo(LPVOID) {
    try {
        const std::string signer = GetImageSignerSubject();
        {
            const Locker lock(IdentityLock);
            CopyText(signer, ImageSignerSubject);
        }
        const std::string title = GetMainWindowTitle();
        const Locker lock(IdentityLock);
        CopyText(title, MainWindowTitle);
    } catch (const std::exception&) {
        // Out of memory: the old values stay.
    }
    return 0;
}

void StartProcessInfoCollection() {
    if (Collecting) return;
    ForgetProcessInfoCollection();
    const HMODULE library = ReferenceThisLibrary();
    DWORD threadId = 0;
    Collecting = true;
    if (library != nullptr)
        CollectionThread = CreateThread(nullptr, 0, CollectionProcedure, library, 0, &threadId);
    if (CollectionThread != nullptr) return;
    Trace("ERROR:Failed to create the thread for getting process info, error = %d\n",
          static_cast<int>(GetLastError()));
    Collecting = false;
    if (library != nullptr) FreeLibrary(library);
}

void StopProcessInfoCollection() {
    if (CollectionThread != nullptr) WaitForSingleObject(CollectionThread, kPatienceMilliseconds);
    ForgetProcessInfoCollection();
}

void ForgetProcessInfoCollection() {
    SafeCloseHandle(std::exchange(CollectionThread, nullptr));
}
