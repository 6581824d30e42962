// The machine that the stand-in plays: catalog, registry, folders, user, process, certificate, windows,
// routes. Read at first use from the TOML file named by the environment variable QX_MACHINE; without one,
// sound defaults. A broken file ends the process with status 2 and a message with file, line and column.
//
// Immutable once made; any thread may read. Tests put another one in place.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace platform {

/// A registry value: a REG_DWORD or a REG_SZ.
struct RegistryValue {
    bool isNumber = false;
    std::uint32_t number = 0;
    std::string text;
};

struct CaseInsensitiveLess {
    bool operator()(const std::string& a, const std::string& b) const;
};

using RegistryKeyValues = std::map<std::string, RegistryValue, CaseInsensitiveLess>;

/// One top-level window.
struct MachineWindow {
    std::string title;
    bool hung = false;          // its messages are never answered
    std::uint32_t process = 0;  // 0: this process
    int owner = -1;             // index of the window that owns it, or -1
};

/// Traffic to `destination` really goes to `target`, while everything above sees the destination.
struct MachineRoute {
    std::string destinationAddress;     // numeric, without brackets
    std::uint16_t destinationPort = 0;  // 0: any port
    std::string targetAddress;          // empty when it is a black hole
    std::uint16_t targetPort = 0;
    bool blackHole = false;  // nothing ever answers
};

struct Machine {
    // As written in the file, %VARIABLES% included; the modules are expanded like any provider's path.
    std::string baseProvider;  // default: libqxtcpip.so beside this library
    std::string layer;         // empty: no layer; "default" was replaced by libqxlsp.so beside this library

    /// By whole path: "HKEY_LOCAL_MACHINE\SOFTWARE\...".
    std::map<std::string, RegistryKeyValues, CaseInsensitiveLess> registry;
    bool denyRegistryWrite = false;  // opening a key with a right to write is denied

    std::string commonAppData;  // made when it is missing
    std::string userName;       // DOMAIN\user; empty: cannot be told
    std::string processImage;   // empty: the real one
    std::vector<std::string> extraModules;
    std::string certificateSubject;  // of the process image's signature; empty: not signed
    std::vector<MachineWindow> windows;
    std::vector<MachineRoute> routes;
};

/// The machine; keeps it alive for whoever reads while a test replaces it.
std::shared_ptr<const Machine> TheMachine();

/// `machine` is the machine from now on. Call it before the first socket is made: what was already read (the
/// catalog) is not read again. The registry, folders, user, windows, routes and certificate count at once.
void SetMachineForTest(Machine machine);

}  // namespace platform
