// The one machine of the process.
#include "platform/system/machine.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "platform/system/machine_defaults.h"
#include "platform/system/machine_file.h"

namespace platform {

namespace {

std::shared_ptr<const Machine> LoadMachine() {
    const char* path = std::getenv("QX_MACHINE");
    if (path == nullptr || *path == 0) return std::make_shared<Machine>(DefaultMachine());
    std::string message;
    std::unique_ptr<Machine> machine = ReadMachineFile(path, &message);
    if (machine == nullptr) {
        std::fprintf(stderr, "%s\n", message.c_str());
        std::fflush(nullptr);
        EndProcessAtOnce(2);
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
