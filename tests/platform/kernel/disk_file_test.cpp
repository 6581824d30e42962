// Files that are read: how they are opened, where they are read, and what is refused.
#include <windows.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace {

class DiskFileTest : public testing::Test {
  protected:
    DiskFileTest() { std::ofstream(path_, std::ios::binary) << "0123456789"; }
    ~DiskFileTest() override { std::filesystem::remove(path_); }

    static HANDLE Open(const std::string& path) {
        return CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                           FILE_ATTRIBUTE_NORMAL, nullptr);
    }

    static DWORD ErrorOfOpening(const std::string& path) {
        EXPECT_EQ(Open(path), INVALID_HANDLE_VALUE) << path;
        return GetLastError();
    }

    /// What one read gives; "error N" when it fails.
    static std::string Read(HANDLE file, DWORD size, OVERLAPPED* overlapped = nullptr) {
        char data[100];
        DWORD read = 77;
        if (!ReadFile(file, data, size, &read, overlapped)) return "error " + std::to_string(GetLastError());
        return {data, read};
    }

    const std::filesystem::path path_ =
        std::filesystem::temp_directory_path() / ("qx-file-" + std::to_string(GetCurrentProcessId()));
};

TEST_F(DiskFileTest, ReadsFromItsPositionAndFromAnyOffset) {
    const HANDLE file = Open(path_.string());
    ASSERT_NE(file, INVALID_HANDLE_VALUE) << GetLastError();
    EXPECT_EQ(Read(file, 4), "0123");
    OVERLAPPED at = {};
    at.Offset = 7;
    EXPECT_EQ(Read(file, 100, &at), "789");
    at.Offset = 10;
    EXPECT_EQ(Read(file, 1, &at), "error 38") << "a named offset knows the end";
    EXPECT_EQ(SetFilePointer(file, -6, nullptr, FILE_END), 4u);
    EXPECT_EQ(SetFilePointer(file, 1, nullptr, FILE_CURRENT), 5u);
    EXPECT_EQ(Read(file, 100), "56789");
    EXPECT_EQ(Read(file, 100), "") << "the end";
    LONG high = 1;
    EXPECT_EQ(SetFilePointer(file, 5, &high, FILE_BEGIN), 5u);
    EXPECT_EQ(high, 1);
    EXPECT_EQ(Read(file, 1), "") << "far behind the end";
    EXPECT_EQ(SetFilePointer(file, -1, nullptr, FILE_BEGIN), INVALID_SET_FILE_POINTER);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NEGATIVE_SEEK));
    EXPECT_TRUE(CloseHandle(file));
    EXPECT_EQ(Read(file, 1), "error 6");
}

TEST_F(DiskFileTest, OnlyFilesAreOpened) {
    EXPECT_EQ(ErrorOfOpening(path_.string() + "-missing"), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(ErrorOfOpening((path_.parent_path() / "no-such-folder" / "file").string()),
              static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
    EXPECT_EQ(ErrorOfOpening(path_.parent_path().string()), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    const std::string narrow = path_.string();
    const std::basic_string<WCHAR> wide(narrow.begin(), narrow.end());
    const HANDLE file = CreateFileW(wide.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
    EXPECT_EQ(Read(file, 2), "01");
    CloseHandle(file);
}

}  // namespace
