// Text conversion and environment expansion, as Windows documents them.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/platform/kernel/environment_variable.h"
#include "tests/platform/wine.h"

namespace {

std::vector<WCHAR> Wide(const std::string& text, DWORD flags = 0) {
    std::vector<WCHAR> wide(64, 0x7777);
    const int size =
        MultiByteToWideChar(CP_UTF8, flags, text.data(), static_cast<int>(text.size()), wide.data(), 64);
    wide.resize(static_cast<std::size_t>(size));
    return wide;
}

std::string Narrow(const std::vector<WCHAR>& wide, DWORD flags = 0) {
    std::string text(64, '?');
    const int size = WideCharToMultiByte(CP_UTF8, flags, wide.data(), static_cast<int>(wide.size()), &text[0],
                                         64, nullptr, nullptr);
    text.resize(static_cast<std::size_t>(size));
    return text;
}

}  // namespace

TEST(Text, RoundTripsEveryLengthOfUtf8) {
    const std::string text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";
    const std::vector<WCHAR> wide = {0x61, 0xE9, 0x20AC, 0xD83D, 0xDE00};
    EXPECT_EQ(Wide(text), wide);
    EXPECT_EQ(Narrow(wide), text);
}

TEST(Text, InvalidInputIsReplacedOrRefused) {
    const struct {
        const char* text;
        const char* what;
    } cases[] = {{"\xFF", "no lead byte"},        {"\xC0\x80", "overlong"},        {"\xE2\x82", "cut short"},
                 {"\xED\xA0\x80", "a surrogate"}, {"\xF4\x90\x80\x80", "too big"}, {"\x80", "a trail byte"}};
    for (const auto& test : cases) {
        const std::vector<WCHAR> wide = Wide(test.text);
        ASSERT_FALSE(wide.empty()) << test.what;
        EXPECT_EQ(wide[0], 0xFFFD) << test.what;
        EXPECT_TRUE(Wide(test.text, MB_ERR_INVALID_CHARS).empty()) << test.what;
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_UNICODE_TRANSLATION)) << test.what;
    }
    EXPECT_EQ(Narrow({0xD83D, 0x61}),
              "\xEF\xBF\xBD"
              "a");
    EXPECT_EQ(Narrow({0xDE00}, WC_ERR_INVALID_CHARS), "");
}

TEST(Text, SizesAndErrorsFollowTheBuffer) {
    WCHAR wide[4];
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "abc", -1, nullptr, 0), 4);
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "abc", -1, wide, 4), 4);
    EXPECT_EQ(wide[3], 0);
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "abcd", -1, wide, 4), 0);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "abc", 0, wide, 4), 0);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    char text[4];
    const WCHAR abc[] = {'a', 'b', 'c', 0};
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, abc, -1, text, 4, nullptr, nullptr), 4);
    EXPECT_STREQ(text, "abc");
    BOOL used = FALSE;
    if (Keeps(Documented::kUtf8TakesNoDefault)) {
        EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, abc, -1, text, 4, nullptr, &used), 0);
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    }
}

TEST(Text, ExpandsSetVariablesOnly) {
    const ScopedVariable variable("QX_KERNEL_TEST", "va\xC3\xA9");
    char text[64];
    const std::string expected =
        "1va\xC3\xA9"
        "2%no_such_variable%100%";
    EXPECT_EQ(ExpandEnvironmentStringsA("1%qx_kernel_TEST%2%no_such_variable%100%", text, sizeof(text)),
              expected.size() + 1);
    EXPECT_EQ(text, expected);
    EXPECT_EQ(ExpandEnvironmentStringsA("abcdef", text, 4), 7u) << "the needed size";
}
