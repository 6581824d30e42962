// See regular_file.h.
#include "analyzer/regular_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>

namespace fs = std::filesystem;

// Where a function here returns a reason, an empty one means success.
namespace {

using OpenFile = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

std::string LastReason() {
    return std::strerror(errno);
}

/// Looks before anything is opened, since to open a FIFO is to wait. A file that isn't there is fine.
std::string WhyNotRegular(const std::string& path) {
    std::error_code error;
    const fs::file_type type = fs::status(path, error).type();
    if (type == fs::file_type::regular || type == fs::file_type::not_found) return {};
    return type == fs::file_type::none ? error.message() : "it is no regular file";
}

std::string Read(const std::string& path, std::string* content) {
    if (std::string reason = WhyNotRegular(path); !reason.empty()) return reason;
    const OpenFile file(std::fopen(path.c_str(), "rb"), std::fclose);
    if (!file) return LastReason();
    char part[4096];
    while (const std::size_t count = std::fread(part, 1, sizeof(part), file.get()))
        content->append(part, count);
    return std::ferror(file.get()) != 0 ? LastReason() : std::string();
}

std::string Write(const std::string& path, const std::string& content) {
    OpenFile file(std::fopen(path.c_str(), "wb"), std::fclose);
    if (!file) return LastReason();
    if (std::fwrite(content.data(), 1, content.size(), file.get()) != content.size()) return LastReason();
    return std::fclose(file.release()) != 0 ? LastReason() : std::string();
}

std::string Replace(const std::string& path, const std::string& content) {
    if (std::string reason = WhyNotRegular(path); !reason.empty()) return reason;
    std::error_code error;
    const fs::path folder = fs::path(path).parent_path();
    if (!folder.empty()) fs::create_directories(folder, error);
    if (error) return error.message();

    const std::string draft = path + ".new";
    // What an earlier run, or somebody else, has left there is neither followed nor waited for.
    fs::remove(draft, error);
    if (error) return error.message();
    std::string reason = Write(draft, content);
    if (reason.empty()) {
        fs::rename(draft, path, error);
        if (error) reason = error.message();
    }
    if (!reason.empty()) fs::remove(draft, error);
    return reason;
}

}  // namespace

std::string ReadRegularFile(const std::string& path) {
    std::string content;
    const std::string reason = Read(path, &content);
    if (!reason.empty()) throw FileError("cannot read " + path + ": " + reason);
    return content;
}

void ReplaceRegularFile(const std::string& path, const std::string& content) {
    const std::string reason = Replace(path, content);
    if (!reason.empty()) throw FileError("cannot write " + path + ": " + reason);
}
