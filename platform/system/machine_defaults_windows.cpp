// The machine's defaults on Windows. Machine files name libraries as the native build does;
// here "libNAME.so" beside the host library is NAME.dll.
#include <winsock2.h>

#include <windows.h>

#include <ws2tcpip.h>

#include <array>
#include <cstdlib>

#include "platform/system/machine_defaults.h"

namespace platform {

namespace {

std::string TemporaryFolder() {
    char path[MAX_PATH + 1] = {};
    const DWORD length = GetTempPathA(sizeof(path), path);
    return std::string(path, length < sizeof(path) ? length : 0);
}

}  // namespace

std::string BesideThisLibrary(const std::string& fileName) {
    HMODULE own = nullptr;
    GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCSTR>(reinterpret_cast<void*>(&BesideThisLibrary)), &own);
    char path[MAX_PATH] = {};
    GetModuleFileNameA(own, path, sizeof(path));
    const std::string folder(path, static_cast<std::size_t>(std::string(path).find_last_of('\\') + 1));
    const bool isNative = fileName.rfind("lib", 0) == 0 && fileName.size() > 6 &&
                          fileName.compare(fileName.size() - 3, 3, ".so") == 0;
    return folder + (isNative ? fileName.substr(3, fileName.size() - 6) + ".dll" : fileName);
}

Machine DefaultMachine() {
    Machine machine;
    machine.baseProvider = BesideThisLibrary("qxlower.dll");
    machine.commonAppData = TemporaryFolder() + "qx-common-app-data";
    const char* user = std::getenv("USERNAME");
    machine.userName = user == nullptr ? "" : std::string("WINE\\") + user;
    return machine;
}

bool IsNumericAddress(const std::string& text, bool v6) {
    std::array<unsigned char, 16> parsed;
    return inet_pton(v6 ? AF_INET6 : AF_INET, text.c_str(), parsed.data()) == 1;
}

void EndProcessAtOnce(int code) {
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(code));
    std::abort();  // not reached; the call's declaration does not say so
}

}  // namespace platform
