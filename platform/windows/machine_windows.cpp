// The machine's defaults on Windows, and who holds it. Machine files name libraries as the native build does;
// here "libNAME.so" beside the host library is NAME.dll.
#include <windows.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "platform/system/machine.h"
#include "platform/system/machine_file.h"
#include "platform/testing/machine.h"

namespace platform {

namespace {

std::string TemporaryFolder() {
    char path[MAX_PATH + 1] = {};
    const DWORD length = GetTempPathA(sizeof path, path);
    return std::string(path, length < sizeof path ? length : 0);
}

std::shared_ptr<const Machine> LoadMachine() {
    const char* path = std::getenv("QX_MACHINE");
    if (path == nullptr || *path == 0) return std::make_shared<Machine>(DefaultMachine());
    std::string message;
    std::unique_ptr<Machine> machine = ReadMachineFile(path, &message);
    if (machine == nullptr) {
        std::fprintf(stderr, "%s\n", message.c_str());
        std::fflush(nullptr);
        TerminateProcess(GetCurrentProcess(), 2);
    }
    return machine;
}

struct MachineHolder {
    std::mutex mutex;
    std::shared_ptr<const Machine> machine;
};

MachineHolder& TheHolder() {
    static MachineHolder* const holder = new MachineHolder;
    return *holder;
}

}  // namespace

bool CaseInsensitiveLess::operator()(const std::string& a, const std::string& b) const {
    return std::lexicographical_compare(
        a.begin(), a.end(), b.begin(), b.end(),
        [](unsigned char x, unsigned char y) { return std::tolower(x) < std::tolower(y); });
}

std::string BesideThisLibrary(const std::string& fileName) {
    HMODULE own = nullptr;
    GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCSTR>(reinterpret_cast<void*>(&BesideThisLibrary)), &own);
    char path[MAX_PATH] = {};
    GetModuleFileNameA(own, path, sizeof path);
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

std::shared_ptr<const Machine> TheMachine() {
    MachineHolder& holder = TheHolder();
    const std::lock_guard<std::mutex> lock(holder.mutex);
    if (holder.machine == nullptr) holder.machine = LoadMachine();
    return holder.machine;
}

void SetMachineForTest(Machine machine) {
    MachineHolder& holder = TheHolder();
    auto replacement = std::make_shared<const Machine>(std::move(machine));
    const std::lock_guard<std::mutex> lock(holder.mutex);
    holder.machine.swap(replacement);
}

}  // namespace platform
