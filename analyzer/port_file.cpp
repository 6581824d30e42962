#include "analyzer/port_file.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>

void WritePortFile(const std::string& path, std::uint16_t port) {
    const std::filesystem::path target(path);
    const std::filesystem::path draft(path + ".new");
    if (target.has_parent_path()) std::filesystem::create_directories(target.parent_path());
    {
        std::ofstream file(draft, std::ios::binary | std::ios::trunc);
        const char bytes[] = {static_cast<char>(port & 0xFF), static_cast<char>(port >> 8), 0, 0};
        file.write(bytes, sizeof(bytes));
        file.close();
        if (!file) throw std::system_error(errno, std::generic_category(), "cannot write " + draft.string());
    }
    std::filesystem::rename(draft, target);
}
