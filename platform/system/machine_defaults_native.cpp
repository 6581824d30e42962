// The machine's defaults natively: this host, this user.
#include "platform/system/machine_defaults.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>

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

}  // namespace

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

bool IsNumericAddress(const std::string& text, bool v6) {
    std::array<unsigned char, 16> parsed;
    return inet_pton(v6 ? AF_INET6 : AF_INET, text.c_str(), parsed.data()) == 1;
}

void EndProcessAtOnce(int code) {
    _exit(code);
}

}  // namespace platform
