// A folder for the files of one test.
#pragma once

#include <cstddef>
#include <filesystem>
#include <iterator>
#include <random>
#include <string>

/// Its own for each test, removed with all that is in it.
class TestFolder {
  public:
    TestFolder()
        : path_(std::filesystem::temp_directory_path() /
                ("qxanalyzer-test-" + std::to_string(std::random_device()()))) {
        std::filesystem::create_directories(path_);
    }
    ~TestFolder() { std::filesystem::remove_all(path_); }
    std::string operator/(const std::string& name) const { return (path_ / name).string(); }

    std::size_t Entries() const {
        const std::filesystem::directory_iterator entries(path_);
        return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
    }

  private:
    const std::filesystem::path path_;
};
