#include "platform/system/machine.h"

#include <dlfcn.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "platform/system/machine_file.h"
#include "platform/testing/machine.h"

namespace platform {

namespace {

std::string UserDefault() {
    std::array<char, 256> host{};
    if (gethostname(host.data(), host.size() - 1) != 0) host[0] = 0;
    std::string domain(host.data());
    domain = domain.substr(0, domain.find('.'));
    std::transform(domain.begin(), domain.end(), domain.begin(),
                   [](unsigned char c) { return std::toupper(c); });
    std::array<char, 4096> storage;
    passwd entry;
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, storage.data(), storage.size(), &found) != 0 || found == nullptr)
        return "";
    return domain + "\\" + found->pw_name;
}

std::string CommonAppDataDefault() {
    const char* temporary = std::getenv("TMPDIR");
    return std::string(temporary != nullptr && *temporary != 0 ? temporary : "/tmp") +
           "/qx-common-app-data-" + std::to_string(getuid());
}

std::shared_ptr<const Machine> LoadMachine() {
    const char* path = std::getenv("QX_MACHINE");
    if (path == nullptr || *path == 0) return std::make_shared<Machine>(DefaultMachine());
    std::string message;
    std::unique_ptr<Machine> machine = ReadMachineFile(path, &message);
    if (machine == nullptr) {
        std::fprintf(stderr, "%s\n", message.c_str());
        std::fflush(nullptr);
        _exit(2);
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
    Dl_info info;
    if (dladdr(reinterpret_cast<const void*>(&BesideThisLibrary), &info) == 0) return fileName;
    const std::string own = info.dli_fname;
    return own.substr(0, own.find_last_of('/') + 1) + fileName;
}

Machine DefaultMachine() {
    Machine machine;
    machine.baseProvider = BesideThisLibrary("libqxtcpip.so");
    machine.commonAppData = CommonAppDataDefault();
    machine.userName = UserDefault();
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
