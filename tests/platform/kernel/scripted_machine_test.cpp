// What registry, user, folders, windows, certificates and modules make of the scripted machine.
#include <windows.h>

#include <security.h>
#include <shlobj.h>
#include <wincrypt.h>

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
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

class ScriptedMachine : public ::testing::Test {
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

TEST_F(ScriptedMachine, RegistryMayRefuseToBeWritten) {
    const char path[] = "software\\DEMO\\Product";
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, path, 0, 0xF013F, &key), ERROR_ACCESS_DENIED);
    ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, path, 0, KEY_READ, &key), ERROR_SUCCESS);
    EXPECT_EQ(RegCloseKey(key), ERROR_SUCCESS);
}

TEST_F(ScriptedMachine, UserAndFolder) {
    WCHAR name[32];
    ULONG size = 32;
    EXPECT_TRUE(GetUserNameExW(NameSamCompatible, name, &size));
    EXPECT_EQ(size, 10u);
    EXPECT_EQ(std::string(name, name + 11), std::string("DEMO\\alice\0", 11));
    char path[MAX_PATH];
    EXPECT_EQ(SHGetFolderPathA(nullptr, CSIDL_COMMON_APPDATA, nullptr, SHGFP_TYPE_CURRENT, path), S_OK);
    EXPECT_EQ(path, folder_);
    EXPECT_TRUE(std::filesystem::remove(path)) << "it was made";
}

TEST_F(ScriptedMachine, WindowsAreEnumeratedOwnedAndAskedForTheirText) {
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

TEST_F(ScriptedMachine, CertificateLeadsFromTheFileToTheSubject) {
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

TEST_F(ScriptedMachine, AddsModuleNamesAndTheImagePath) {
    std::string message;
    const auto machine = platform::ParseMachine(
        "[process]\nimage = 'C:/Program Files/Demo/demo.exe'\nmodules = ['extra.dll']\n", "test", &message);
    ASSERT_NE(machine, nullptr) << message;
    platform::SetMachineForTest(*machine);
    EXPECT_NE(GetModuleHandleA("EXTRA"), nullptr);
    EXPECT_EQ(GetModuleHandleA("extra2.dll"), nullptr);
    char buffer[MAX_PATH];
    GetModuleFileNameA(nullptr, buffer, MAX_PATH);
    EXPECT_STREQ(buffer, "C:/Program Files/Demo/demo.exe");
}
