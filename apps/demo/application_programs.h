// Where the programs that the stage runs as applications come from: those beside this program, or the Windows
// programs of another build, run by Wine through the launcher. Plain values, no threads.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

struct ApplicationPrograms {
    /// The folder of the Windows programs, the launcher among them; empty: native programs.
    std::filesystem::path windowsFolder;
    /// The program that runs a Windows program.
    std::filesystem::path wine = "/opt/wine32/run";

    /// As QX_WINDOWS_PROGRAMS and QX_WINE name them.
    static ApplicationPrograms FromEnvironment();

    bool AreNative() const { return windowsFolder.empty(); }

    /// The words that start the program, before its arguments.
    std::vector<std::string> Command(const std::string& program) const;

    /// The name that the programs know an absolute path of this machine by.
    std::string PathFor(const std::filesystem::path& path) const;
};

/// The native programs lie beside this one.
std::filesystem::path ProgramDirectory();
