// The registry and the user's name, as Windows documents them. Windows' own registry gets the keys that the
// stand-in's machine has.
#include <windows.h>

#include <security.h>

#include <gtest/gtest.h>

#include <cctype>
#include <string>
#include <vector>

#ifndef _WIN32
#include "platform/testing/machine.h"
#endif

namespace {

/// A key of this process.
std::string Parent() {
    return "Software\\QxKernelTest" + std::to_string(GetCurrentProcessId());
}

#ifdef _WIN32

void MakeKeys() {
    HKEY key = nullptr;
    ASSERT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER, (Parent() + "\\Product").c_str(), 0, nullptr,
                              REG_OPTION_VOLATILE, KEY_ALL_ACCESS, nullptr, &key, nullptr),
              ERROR_SUCCESS);
    const DWORD port = 48191;
    RegSetValueExA(key, "Port", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&port), sizeof(port));
    RegSetValueExA(key, "Name", 0, REG_SZ, reinterpret_cast<const BYTE*>("text"), 5);
    RegCloseKey(key);
}

void RemoveKeys() {
    RegDeleteKeyA(HKEY_CURRENT_USER, (Parent() + "\\Product").c_str());
    RegDeleteKeyA(HKEY_CURRENT_USER, Parent().c_str());
}

#else

void MakeKeys() {
    std::string message;
    const auto machine = platform::ParseMachine(
        "[registry.'HKEY_CURRENT_USER\\" + Parent() + "\\Product']\nPort = 48191\nName = 'text'\n",
        "test.toml", &message);
    ASSERT_NE(machine, nullptr) << message;
    machine->userName = platform::TheMachine()->userName;
    platform::SetMachineForTest(*machine);
}

void RemoveKeys() {
    platform::Machine without = *platform::TheMachine();
    without.registry.clear();
    platform::SetMachineForTest(without);
}

#endif

/// The path in capitals and small letters as no key has it.
std::string InOtherLetters(std::string path) {
    for (char& letter : path)
        letter = static_cast<char>(std::islower(static_cast<unsigned char>(letter)) ? std::toupper(letter)
                                                                                    : std::tolower(letter));
    return path;
}

/// What a key with the number "Port" 48191 and the text "Name" "text" answers.
void ExpectPortAndName(HKEY key) {
    DWORD value = 0, type = 0, size = sizeof(value);
    EXPECT_EQ(RegQueryValueExA(key, "port", nullptr, &type, reinterpret_cast<BYTE*>(&value), &size),
              ERROR_SUCCESS);
    EXPECT_TRUE(value == 48191 && type == REG_DWORD && size == 4);
    size = 0;
    EXPECT_EQ(RegQueryValueExA(key, "Name", nullptr, &type, nullptr, &size), ERROR_SUCCESS);
    EXPECT_TRUE(type == REG_SZ && size == 5);
    char text[5] = "";
    size = 4;
    EXPECT_EQ(RegQueryValueExA(key, "Name", nullptr, &type, reinterpret_cast<BYTE*>(text), &size),
              ERROR_MORE_DATA);
    EXPECT_EQ(size, 5u);
    EXPECT_EQ(RegQueryValueExA(key, "Name", nullptr, nullptr, reinterpret_cast<BYTE*>(text), &size),
              ERROR_SUCCESS);
    EXPECT_STREQ(text, "text");
}

class Registry : public ::testing::Test {
  protected:
    void SetUp() override { MakeKeys(); }
    void TearDown() override { RemoveKeys(); }
};

}  // namespace

TEST_F(Registry, GivesValuesWithTheirTypesAndSizes) {
    HKEY key = nullptr;
    ASSERT_EQ(
        RegOpenKeyExA(HKEY_CURRENT_USER, InOtherLetters(Parent() + "\\Product").c_str(), 0, KEY_READ, &key),
        ERROR_SUCCESS);
    ExpectPortAndName(key);
    char text[5] = "";
    EXPECT_EQ(RegQueryValueExA(key, "Name", nullptr, nullptr, reinterpret_cast<BYTE*>(text), nullptr),
              ERROR_INVALID_PARAMETER)
        << "a buffer of no size";
    EXPECT_EQ(RegQueryValueExA(key, "Other", nullptr, nullptr, nullptr, nullptr), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegCloseKey(key), ERROR_SUCCESS);
    EXPECT_EQ(RegQueryValueExA(key, "Port", nullptr, nullptr, nullptr, nullptr), ERROR_INVALID_HANDLE);
    EXPECT_EQ(RegCloseKey(key), ERROR_INVALID_HANDLE);
}

TEST_F(Registry, OpensKeysBelowOthers) {
    HKEY parent = nullptr, key = nullptr;
    ASSERT_EQ(RegOpenKeyExA(HKEY_CURRENT_USER, Parent().c_str(), 0, KEY_READ, &parent), ERROR_SUCCESS);
    EXPECT_EQ(RegOpenKeyExA(parent, "Product", 0, KEY_READ, &key), ERROR_SUCCESS);
    RegCloseKey(key);
    EXPECT_EQ(RegOpenKeyExA(parent, "Prod", 0, KEY_READ, &key), ERROR_FILE_NOT_FOUND);
    RegCloseKey(parent);
}

TEST(User, NameTellsTheRoomItNeeds) {
    ULONG needed = 0;
    EXPECT_FALSE(GetUserNameExW(NameSamCompatible, nullptr, &needed));
    ASSERT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    ASSERT_GT(needed, 1u);
    std::vector<WCHAR> name(needed, 0x7777);
    ULONG size = needed - 1;
    EXPECT_FALSE(GetUserNameExW(NameSamCompatible, name.data(), &size));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(size, needed);
    ASSERT_TRUE(GetUserNameExW(NameSamCompatible, name.data(), &size));
    EXPECT_EQ(size, needed - 1) << "without the final zero";
    EXPECT_EQ(name[size], 0);
    EXPECT_EQ(std::basic_string<WCHAR>(name.data()).size(), size);
    EXPECT_NE(std::basic_string<WCHAR>(name.data()).find('\\'), std::basic_string<WCHAR>::npos);
}
