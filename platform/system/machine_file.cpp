// The machine file's reader. Strict: a key that nobody knows is an error, since it is most likely a misspelt
// one.
#include "platform/system/machine_file.h"

#include <toml++/toml.h>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <stdexcept>

#include "platform/system/machine_defaults.h"

namespace platform {

namespace {

/// What is wrong, and where.
class MachineError : public std::runtime_error {
  public:
    MachineError(const toml::source_region& where, const std::string& what)
        : std::runtime_error(what), line(where.begin.line), column(where.begin.column) {}
    const unsigned line;
    const unsigned column;
};

template <class Value>
Value Get(const toml::node& node, const char* expected) {
    const std::optional<Value> value = node.value_exact<Value>();
    if (!value) throw MachineError(node.source(), std::string("expected ") + expected);
    return *value;
}

const toml::table& GetTable(const toml::node& node) {
    if (!node.is_table()) throw MachineError(node.source(), "expected a table");
    return *node.as_table();
}

const toml::array& GetArray(const toml::node& node) {
    if (!node.is_array()) throw MachineError(node.source(), "expected an array");
    return *node.as_array();
}

std::string GetText(const toml::node& node) {
    return Get<std::string>(node, "a string");
}
bool GetFlag(const toml::node& node) {
    return Get<bool>(node, "true or false");
}
std::int64_t GetNumber(const toml::node& node, std::int64_t highest) {
    const auto number = Get<std::int64_t>(node, "an integer");
    if (number < 0 || number > highest)
        throw MachineError(node.source(), "expected an integer from 0 to " + std::to_string(highest));
    return number;
}

[[noreturn]] void UnknownKey(const toml::key& key) {
    throw MachineError(key.source(), "unknown key '" + std::string(key.str()) + "'");
}

void ReadCatalog(const toml::table& table, Machine* machine) {
    for (const auto& [key, node] : table) {
        if (key == "base_provider") {
            machine->baseProvider = GetText(node);
        } else if (key == "layer") {
            machine->layer = GetText(node);
            if (machine->layer == "default") machine->layer = BesideThisLibrary("libqxlsp.so");
        } else {
            UnknownKey(key);
        }
    }
}

void ReadRegistry(const toml::table& table, Machine* machine) {
    for (const auto& [path, keyNode] : table) {
        RegistryKeyValues& values = machine->registry[std::string(path.str())];
        for (const auto& [name, node] : GetTable(keyNode)) {
            RegistryValue value;
            if (node.is_integer()) {
                value.isNumber = true;
                value.number = static_cast<std::uint32_t>(GetNumber(node, UINT32_MAX));
            } else if (node.is_string()) {
                value.text = GetText(node);
            } else {
                throw MachineError(node.source(), "expected an integer or a string");
            }
            values[std::string(name.str())] = value;
        }
    }
}

/// A table with one key.
template <class Read>
void ReadSingle(const toml::table& table, const char* name, Read read) {
    for (const auto& [key, node] : table) {
        if (key != name) UnknownKey(key);
        read(node);
    }
}

void ReadProcess(const toml::table& table, Machine* machine) {
    for (const auto& [key, node] : table) {
        if (key == "image") {
            machine->processImage = GetText(node);
        } else if (key == "modules") {
            for (const toml::node& name : GetArray(node))
                machine->extraModules.push_back(GetText(name));
        } else {
            UnknownKey(key);
        }
    }
}

MachineWindow ReadWindow(const toml::table& table) {
    MachineWindow window;
    for (const auto& [key, node] : table) {
        if (key == "title") {
            window.title = GetText(node);
        } else if (key == "hung") {
            window.hung = GetFlag(node);
        } else if (key == "process") {
            window.process = static_cast<std::uint32_t>(GetNumber(node, UINT32_MAX));
        } else if (key == "owner") {
            window.owner = static_cast<int>(GetNumber(node, 1'000'000));
        } else {
            UnknownKey(key);
        }
    }
    return window;
}

/// "192.0.2.1:80" or "[2001:db8::1]:80".
void ReadEndpoint(const toml::node& node, std::string* address, std::uint16_t* port) {
    const std::string text = GetText(node);
    const std::size_t colon = text.rfind(':');
    const bool bracketed =
        !text.empty() && text[0] == '[' && colon != std::string::npos && text[colon - 1] == ']';
    const std::string digits = colon == std::string::npos ? "" : text.substr(colon + 1);
    const bool isNumber = !digits.empty() && digits.size() <= 5 &&
                          digits.find_first_not_of("0123456789") == std::string::npos &&
                          std::stoi(digits) <= 65535;
    if (isNumber) *address = bracketed ? text.substr(1, colon - 2) : text.substr(0, colon);
    if (!isNumber || !IsNumericAddress(*address, bracketed))
        throw MachineError(node.source(),
                           "expected a numeric address and a port, '192.0.2.1:80' or '[2001:db8::1]:80'");
    *port = static_cast<std::uint16_t>(std::stoi(digits));
}

MachineRoute ReadRoute(const toml::table& table) {
    MachineRoute route;
    for (const auto& [key, node] : table) {
        if (key == "destination") {
            ReadEndpoint(node, &route.destinationAddress, &route.destinationPort);
        } else if (key == "target") {
            route.blackHole = node.value_exact<std::string>() == "blackhole";
            if (!route.blackHole) ReadEndpoint(node, &route.targetAddress, &route.targetPort);
        } else {
            UnknownKey(key);
        }
    }
    if (route.destinationAddress.empty() || (route.targetAddress.empty() && !route.blackHole))
        throw MachineError(table.source(), "a route has a destination and a target");
    return route;
}

void CheckOwners(const toml::array& nodes, const std::vector<MachineWindow>& windows) {
    for (std::size_t i = 0; i < windows.size(); ++i) {
        // An owner stands before what it owns, so there are no circles.
        if (windows[i].owner >= static_cast<int>(i))
            throw MachineError(nodes[i].source(), "a window's owner is an earlier window");
    }
}

void ReadSection(const toml::key& key, const toml::node& node, Machine* machine) {
    if (key == "catalog") {
        ReadCatalog(GetTable(node), machine);
    } else if (key == "registry") {
        ReadRegistry(GetTable(node), machine);
    } else if (key == "registry_access") {
        ReadSingle(GetTable(node), "deny_write",
                   [machine](const toml::node& value) { machine->denyRegistryWrite = GetFlag(value); });
    } else if (key == "folders") {
        ReadSingle(GetTable(node), "common_app_data",
                   [machine](const toml::node& value) { machine->commonAppData = GetText(value); });
    } else if (key == "user") {
        ReadSingle(GetTable(node), "name",
                   [machine](const toml::node& value) { machine->userName = GetText(value); });
    } else if (key == "process") {
        ReadProcess(GetTable(node), machine);
    } else if (key == "certificate") {
        ReadSingle(GetTable(node), "subject",
                   [machine](const toml::node& value) { machine->certificateSubject = GetText(value); });
    } else if (key == "windows") {
        for (const toml::node& window : GetArray(node))
            machine->windows.push_back(ReadWindow(GetTable(window)));
        CheckOwners(GetArray(node), machine->windows);
    } else if (key == "routes") {
        for (const toml::node& route : GetArray(node))
            machine->routes.push_back(ReadRoute(GetTable(route)));
    } else {
        UnknownKey(key);
    }
}

std::string Describe(const std::string& source, unsigned line, unsigned column, const std::string& what) {
    return source + ":" + std::to_string(line) + ":" + std::to_string(column) + ": " + what;
}

}  // namespace

std::unique_ptr<Machine> ParseMachine(const std::string& text, const std::string& sourceName,
                                      std::string* message) {
    try {
        auto machine = std::make_unique<Machine>(DefaultMachine());
        const toml::table file = toml::parse(text, sourceName);
        for (const auto& [key, node] : file)
            ReadSection(key, node, machine.get());
        return machine;
    } catch (const toml::parse_error& error) {
        const toml::source_position where = error.source().begin;
        *message = Describe(sourceName, where.line, where.column, std::string(error.description()));
    } catch (const MachineError& error) {
        *message = Describe(sourceName, error.line, error.column, error.what());
    }
    return nullptr;
}

std::unique_ptr<Machine> ReadMachineFile(const std::string& path, std::string* message) {
    // Opening a pipe would wait for its writer.
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(path, error);
    if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
        *message = path + ": is not an ordinary file";
        return nullptr;
    }
    std::ifstream file(path, std::ios::binary);
    const std::string text(std::istreambuf_iterator<char>(file), {});
    if (!file.is_open() || file.bad()) {
        *message = path + ": cannot be read";
        return nullptr;
    }
    return ParseMachine(text, path, message);
}

}  // namespace platform
