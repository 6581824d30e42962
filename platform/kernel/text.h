// Text between UTF-8, which is the native ANSI code page, and UTF-16.
#pragma once

#include <string>
#include <string_view>

namespace platform {

/// Invalid sequences become U+FFFD; `*valid`, when asked for, tells whether there were none.
std::u16string ToWide(std::string_view text, bool* valid = nullptr);

/// Unpaired surrogates become U+FFFD.
std::string ToNarrow(std::u16string_view wide, bool* valid = nullptr);

bool EqualsIgnoringCase(std::string_view a, std::string_view b);

}  // namespace platform
