// Conversions between UTF-8 and UTF-16, and the two functions of code pages.
#include "platform/kernel/text.h"

#include <windows.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <new>

#include "platform/kernel/fault_points.h"
#include "platform/kernel/last_error.h"

namespace platform {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

/// Decodes the sequence at the start of `text`; at least one byte is taken. False when it is not valid.
bool DecodeUtf8(std::string_view text, char32_t* character, std::size_t* taken) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    *character = kReplacement;
    *taken = 1;
    if (lead < 0x80) {
        *character = lead;
        return true;
    }
    std::size_t length;
    if (lead >= 0xC2 && lead < 0xE0) {
        length = 2;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3;
    } else if (lead >= 0xF0 && lead < 0xF5) {
        length = 4;
    } else {
        return false;
    }
    char32_t value = lead & (0xFF >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        if (i >= text.size() || (byte(i) & 0xC0) != 0x80) return false;
        value = (value << 6) | (byte(i) & 0x3F);
        *taken = i + 1;
    }
    const bool overlong = (length == 3 && value < 0x800) || (length == 4 && value < 0x10000);
    if (overlong || (value >= 0xD800 && value < 0xE000) || value > 0x10FFFF) return false;
    *character = value;
    return true;
}

void AppendUtf8(std::string* text, char32_t character) {
    if (character < 0x80) {
        text->push_back(static_cast<char>(character));
        return;
    }
    const int following = character < 0x800 ? 1 : character < 0x10000 ? 2 : 3;
    const int leadMark = 0xFF & (0xF80 >> following);
    text->push_back(static_cast<char>(leadMark | static_cast<int>(character >> (6 * following))));
    for (int i = following; i-- > 0;)
        text->push_back(static_cast<char>(0x80 | ((character >> (6 * i)) & 0x3F)));
}

}  // namespace

std::u16string ToWide(std::string_view text, bool* valid) {
    std::u16string wide;
    wide.reserve(text.size());
    bool allValid = true;
    while (!text.empty()) {
        char32_t character;
        std::size_t taken;
        allValid &= DecodeUtf8(text, &character, &taken);
        text.remove_prefix(taken);
        if (character < 0x10000) {
            wide.push_back(static_cast<char16_t>(character));
        } else {
            wide.push_back(static_cast<char16_t>(0xD800 + ((character - 0x10000) >> 10)));
            wide.push_back(static_cast<char16_t>(0xDC00 + ((character - 0x10000) & 0x3FF)));
        }
    }
    if (valid != nullptr) *valid = allValid;
    return wide;
}

std::string ToNarrow(std::u16string_view wide, bool* valid) {
    std::string text;
    text.reserve(wide.size());
    bool allValid = true;
    for (std::size_t i = 0; i < wide.size(); ++i) {
        char32_t character = wide[i];
        if (character >= 0xD800 && character < 0xE000) {
            const bool paired = character < 0xDC00 && i + 1 < wide.size() && (wide[i + 1] & 0xFC00) == 0xDC00;
            if (paired) {
                character = 0x10000 + ((character & 0x3FF) << 10) + (wide[++i] & 0x3FF);
            } else {
                character = kReplacement;
                allValid = false;
            }
        }
        AppendUtf8(&text, character);
    }
    if (valid != nullptr) *valid = allValid;
    return text;
}

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

namespace {

/// Length of a counted or terminated text, in characters; -1 counts the terminator.
template <class Character>
std::size_t TextSize(const Character* text, int size) {
    return size < 0 ? std::char_traits<Character>::length(text) + 1 : static_cast<std::size_t>(size);
}

/// Gives a converted text to the caller as both conversion functions do.
template <class Text, class Character>
int Deliver(const Text& converted, Character* destination, int size) {
    if (size == 0) return static_cast<int>(converted.size());
    if (converted.size() > static_cast<std::size_t>(size)) return Fail<int>(ERROR_INSUFFICIENT_BUFFER, 0);
    std::copy(converted.begin(), converted.end(), destination);
    return static_cast<int>(converted.size());
}

bool IsKnownCodePage(UINT codePage) {
    return codePage == CP_ACP || codePage == CP_UTF8;
}

}  // namespace

}  // namespace platform

using platform::Fail;
using platform::PlatformCall;

int MultiByteToWideChar(UINT codePage, DWORD flags, LPCCH text, int textSize, LPWSTR wide, int wideSize) {
    PlatformCall call("MultiByteToWideChar", ERROR_INVALID_PARAMETER);
    if (call.Fails()) return 0;
    if (!platform::IsKnownCodePage(codePage) || text == nullptr || textSize == 0 || wideSize < 0 ||
        (wide == nullptr && wideSize != 0))
        return Fail<int>(ERROR_INVALID_PARAMETER, 0);
    try {
        bool valid;
        const std::u16string converted =
            platform::ToWide(std::string_view(text, platform::TextSize(text, textSize)), &valid);
        if (!valid && (flags & MB_ERR_INVALID_CHARS) != 0) return Fail<int>(ERROR_NO_UNICODE_TRANSLATION, 0);
        return platform::Deliver(converted, wide, wideSize);
    } catch (const std::bad_alloc&) {
        return Fail<int>(ERROR_NOT_ENOUGH_MEMORY, 0);
    }
}

int WideCharToMultiByte(UINT codePage, DWORD flags, LPCWCH wide, int wideSize, LPSTR text, int textSize,
                        LPCCH defaultCharacter, LPBOOL usedDefault) {
    PlatformCall call("WideCharToMultiByte", ERROR_INVALID_PARAMETER);
    if (call.Fails()) return 0;
    const bool defaultAsked = defaultCharacter != nullptr || usedDefault != nullptr;
    if (!platform::IsKnownCodePage(codePage) || wide == nullptr || wideSize == 0 || textSize < 0 ||
        (text == nullptr && textSize != 0) || (codePage == CP_UTF8 && defaultAsked))
        return Fail<int>(ERROR_INVALID_PARAMETER, 0);
    try {
        bool valid;
        const std::string converted =
            platform::ToNarrow(std::u16string_view(wide, platform::TextSize(wide, wideSize)), &valid);
        if (!valid && (flags & WC_ERR_INVALID_CHARS) != 0) return Fail<int>(ERROR_NO_UNICODE_TRANSLATION, 0);
        if (usedDefault != nullptr) *usedDefault = valid ? FALSE : TRUE;
        return platform::Deliver(converted, text, textSize);
    } catch (const std::bad_alloc&) {
        return Fail<int>(ERROR_NOT_ENOUGH_MEMORY, 0);
    }
}
