// Machine file and port file; see the header.
#include "apps/demo/machine.h"

#include <fstream>
#include <stdexcept>

namespace {

namespace fs = std::filesystem;

void WriteFile(const fs::path& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary);
    file << content;
    file.close();
    if (!file) throw std::runtime_error("cannot write " + path.string());
}

/// The file in which the product's service leaves the analyzer's port: four bytes, the lowest first.
void WritePortFile(unsigned short port, const fs::path& commonAppData) {
    const fs::path folder = commonAppData / "VantrexSoftware" / "Talvessa";
    fs::create_directories(folder);
    WriteFile(folder / "p_info", {static_cast<char>(port & 0xff), static_cast<char>(port >> 8), '\0', '\0'});
}

}  // namespace

fs::path WriteMachine(const MachineDescription& machine, const fs::path& directory) {
    const fs::path commonAppData = directory / "common";
    WritePortFile(machine.analyzerPort, commonAppData);

    std::string text = "[catalog]\nlayer = \"default\"\n\n";
    text += "[registry.'HKEY_LOCAL_MACHINE\\SOFTWARE\\Vantrex Software\\Talvessa QX']\n";
    text +=
        std::string("StopActivityOnFailConnect = ") + (machine.refuseWithoutAnalyzer ? "1" : "0") + "\n\n";
    text += "[folders]\ncommon_app_data = '" + machine.root + commonAppData.string() + "'\n\n";
    text += "[user]\nname = '" + machine.user + "'\n";
    if (!machine.signer.empty()) text += "\n[certificate]\nsubject = '" + machine.signer + "'\n";
    if (!machine.windowTitle.empty()) text += "\n[[windows]]\ntitle = '" + machine.windowTitle + "'\n";
    for (const auto& [destination, target] : machine.routes) {
        text.append("\n[[routes]]\ndestination = \"").append(destination);
        text.append("\"\ntarget = \"").append(target).append("\"\n");
    }
    fs::path file = directory / "machine.toml";
    WriteFile(file, text);
    return file;
}
