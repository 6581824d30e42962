// The machine: its file, and what registry, user, folders, windows and certificates make of it.
#include <security.h>
#include <shlobj.h>
#include <wincrypt.h>
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "platform/testing/clock.h"
#include "platform/testing/machine.h"
#include "platform/testing/resource_counts.h"
#include "tests/platform/kernel/test_handle.h"

namespace {

const char kMachine[] = R"(
[registry.'HKEY_LOCAL_MACHINE\SOFTWARE\Demo\Product']
Port = 48191
Name = "text"
[registry_access]
deny_write = true
[user]
name = 'DEMO\alice'
[certificate]
subject = "Demo Signer"
[[windows]]
title = "Main window"
[[windows]]
title = "Stuck"
hung = true
owner = 0
[[windows]]
title = "Elsewhere"
process = 4
)";

class System : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string message;
        const auto machine = platform::ParseMachine(kMachine, "test.toml", &message);
        ASSERT_NE(machine, nullptr) << message;
        folder_ = ::testing::TempDir() + "qx-system-test-" + std::to_string(GetCurrentProcessId());
        machine->commonAppData = folder_;
        platform::SetMachineForTest(*machine);
        before_ = platform::CountResources();
    }
    void TearDown() override {
        EXPECT_EQ(platform::SettleTo(before_), "");
        platform::SetMachineForTest({});
    }

    std::string folder_;
    platform::ResourceCounts before_;
};

}  // namespace

TEST_F(System, RegistryGivesValuesWithTheirTypesAndSizes) {
    HKEY key = nullptr;
    ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "software\\DEMO\\Product", 0, KEY_READ, &key), ERROR_SUCCESS);
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
    EXPECT_EQ(RegQueryValueExA(key, "Other", nullptr, nullptr, nullptr, nullptr), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegCloseKey(key), ERROR_SUCCESS);
    EXPECT_EQ(RegQueryValueExA(key, "Port", nullptr, nullptr, nullptr, nullptr), ERROR_INVALID_HANDLE);
}

TEST_F(System, RegistryOpensParentsAndRefusesWhatItMust) {
    HKEY parent = nullptr, key = nullptr;
    ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE", 0, KEY_READ, &parent), ERROR_SUCCESS);
    EXPECT_EQ(RegOpenKeyExA(parent, "Demo\\Product", 0, KEY_READ, &key), ERROR_SUCCESS);
    RegCloseKey(key);
    EXPECT_EQ(RegOpenKeyExA(parent, "Dem", 0, KEY_READ, &key), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegOpenKeyExA(parent, "Demo\\Product", 0, 0xF013F, &key), ERROR_ACCESS_DENIED);
    RegCloseKey(parent);
}

TEST_F(System, UserAndFolder) {
    WCHAR name[32];
    ULONG size = 32;
    EXPECT_TRUE(GetUserNameExW(NameSamCompatible, name, &size));
    EXPECT_EQ(size, 10u);
    EXPECT_EQ(std::string(name, name + 11), std::string("DEMO\\alice\0", 11));
    size = 10;
    EXPECT_FALSE(GetUserNameExW(NameSamCompatible, name, &size));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(size, 11u);
    char path[MAX_PATH];
    EXPECT_EQ(SHGetFolderPathA(nullptr, CSIDL_COMMON_APPDATA, nullptr, SHGFP_TYPE_CURRENT, path), S_OK);
    EXPECT_EQ(path, folder_);
    EXPECT_EQ(std::remove(path), 0) << "it was made";
}

TEST_F(System, WindowsAreEnumeratedOwnedAndAskedForTheirText) {
    std::vector<HWND> windows;
    EnumWindows(
        [](HWND window, LPARAM parameter) CALLBACK -> BOOL {
            reinterpret_cast<std::vector<HWND>*>(parameter)->push_back(window);
            return TRUE;
        },
        reinterpret_cast<LPARAM>(&windows));
    ASSERT_EQ(windows.size(), 3u);
    DWORD process = 0;
    EXPECT_NE(GetWindowThreadProcessId(windows[1], &process), 0u);
    EXPECT_EQ(process, GetCurrentProcessId());
    GetWindowThreadProcessId(windows[2], &process);
    EXPECT_EQ(process, 4u);
    EXPECT_EQ(GetAncestor(windows[1], GA_ROOTOWNER), windows[0]);
    EXPECT_EQ(GetAncestor(windows[1], GA_ROOT), windows[1]);
    EXPECT_TRUE(IsWindow(windows[0]));
    EXPECT_FALSE(IsWindow(nullptr));

    char text[8] = "";
    DWORD_PTR length = 0;
    EXPECT_NE(SendMessageTimeoutA(windows[0], WM_GETTEXT, sizeof(text), reinterpret_cast<LPARAM>(text),
                                  SMTO_ABORTIFHUNG, 1000, &length),
              0);
    EXPECT_STREQ(text, "Main wi");
    EXPECT_EQ(length, 7u);
    const platform::ScopedClockRate fast(1000);
    const DWORD start = GetTickCount();
    EXPECT_EQ(SendMessageTimeoutA(windows[1], WM_GETTEXT, sizeof(text), reinterpret_cast<LPARAM>(text),
                                  SMTO_ABORTIFHUNG, 3000, &length),
              0);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_TIMEOUT));
    EXPECT_GE(GetTickCount() - start, 3000u);
}

TEST_F(System, CertificateLeadsFromTheFileToTheSubject) {
    const WCHAR path[] = {'x', 0};
    HCERTSTORE store = nullptr;
    HCRYPTMSG message = nullptr;
    DWORD encoding = 0;
    const auto query = [&] {
        return CryptQueryObject(CERT_QUERY_OBJECT_FILE, path, CERT_QUERY_CONTENT_FLAG_PKCS7_SIGNED_EMBED,
                                CERT_QUERY_FORMAT_FLAG_BINARY, 0, &encoding, nullptr, nullptr, &store,
                                &message, nullptr);
    };
    ASSERT_TRUE(query());
    DWORD size = 0;
    ASSERT_TRUE(CryptMsgGetParam(message, CMSG_SIGNER_INFO_PARAM, 0, nullptr, &size));
    HANDLE block = LocalAlloc(LPTR, size);
    auto* signer = static_cast<CMSG_SIGNER_INFO*>(block);
    ASSERT_TRUE(CryptMsgGetParam(message, CMSG_SIGNER_INFO_PARAM, 0, signer, &size));
    CERT_INFO info = {};
    info.Issuer = signer->Issuer;
    EXPECT_EQ(CertFindCertificateInStore(store, encoding, 0, CERT_FIND_SUBJECT_CERT, &info, nullptr),
              nullptr);
    info.SerialNumber = signer->SerialNumber;
    PCCERT_CONTEXT certificate =
        CertFindCertificateInStore(store, encoding, 0, CERT_FIND_SUBJECT_CERT, &info, nullptr);
    ASSERT_NE(certificate, nullptr);
    EXPECT_EQ(CertGetNameStringA(certificate, CERT_NAME_SIMPLE_DISPLAY_TYPE, 0, nullptr, nullptr, 0), 12u);
    char subject[12];
    CertGetNameStringA(certificate, CERT_NAME_SIMPLE_DISPLAY_TYPE, 0, nullptr, subject, sizeof(subject));
    EXPECT_STREQ(subject, "Demo Signer");
    CertFreeCertificateContext(certificate);
    LocalFree(block);
    CryptMsgClose(message);
    CertCloseStore(store, 0);

    platform::Machine unsignedMachine;
    platform::SetMachineForTest(unsignedMachine);
    EXPECT_FALSE(query());
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(CRYPT_E_NO_MATCH));
}

TEST(MachineFile, ErrorsNameTheirPlaceAndReason) {
    const struct {
        const char* text;
        const char* message;
    } cases[] = {
        {"[catalog]\nlayer = \n", "m.toml:2:"},
        {"[catalog]\nlayers = 'x'\n", "m.toml:2:1: unknown key 'layers'"},
        {"[machine]\n", "unknown key 'machine'"},
        {"[user]\nname = 5\n", "m.toml:2:8: expected a string"},
        {"[registry.'HKEY_LOCAL_MACHINE\\A']\nv = 4294967296\n",
         "m.toml:2:5: expected an integer from 0 to 4294967295"},
        {"[[routes]]\ndestination = '203.0.113.10'\ntarget = '127.0.0.1:1'\n",
         "m.toml:2:15: expected a numeric address"},
        {"[[routes]]\ndestination = '203.0.113.10:70000'\ntarget = '127.0.0.1:1'\n", "m.toml:2:15: "},
        {"[[routes]]\ndestination = '203.0.113.10:7'\n", "a route has a destination and a target"},
        {"[[windows]]\nowner = 0\n", "a window's owner is an earlier window"},
    };
    for (const auto& test : cases) {
        std::string message;
        EXPECT_EQ(platform::ParseMachine(test.text, "m.toml", &message), nullptr) << test.text;
        EXPECT_NE(message.find(test.message), std::string::npos) << message;
        EXPECT_EQ(message.rfind("m.toml:", 0), 0u) << message;
    }
}

TEST(MachineFile, RoutesAndDefaults) {
    std::string message;
    const auto machine = platform::ParseMachine(
        "[catalog]\nlayer = 'default'\n[[routes]]\ndestination = '203.0.113.10:0'\ntarget = 'blackhole'\n"
        "[[routes]]\ndestination = '[2001:db8::1]:443'\ntarget = '127.0.0.1:41080'\n",
        "m.toml", &message);
    ASSERT_NE(machine, nullptr) << message;
    EXPECT_NE(machine->baseProvider.find("/libqxtcpip.so"), std::string::npos);
    EXPECT_NE(machine->layer.find("/libqxlsp.so"), std::string::npos);
    EXPECT_NE(machine->userName.find('\\'), std::string::npos);
    ASSERT_EQ(machine->routes.size(), 2u);
    EXPECT_TRUE(machine->routes[0].blackHole && machine->routes[0].destinationPort == 0);
    EXPECT_EQ(machine->routes[1].destinationAddress, "2001:db8::1");
    EXPECT_EQ(machine->routes[1].destinationPort, 443);
    EXPECT_EQ(machine->routes[1].targetPort, 41080);
}
