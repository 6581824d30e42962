// %VARIABLE% expansion. Names are compared without regard to case, as Windows does.
#include "platform/kernel/environment.h"

#include <unistd.h>
#include <windows.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <string_view>

#include "platform/kernel/fault_points.h"
#include "platform/kernel/last_error.h"
#include "platform/kernel/text.h"

namespace platform {

namespace {

/// The variable's value, or null when it is not set.
const char* FindVariable(std::string_view name) {
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const char* separator = std::strchr(*entry, '=');
        if (separator == nullptr) continue;
        const std::string_view entryName(*entry, static_cast<std::size_t>(separator - *entry));
        if (EqualsIgnoringCase(entryName, name)) return separator + 1;
    }
    return nullptr;
}

/// Gives an expanded text to the caller: the size with terminator, copied only when it fits.
template <class Text, class Character>
DWORD DeliverExpanded(const Text& expanded, Character* destination, DWORD size) {
    const auto needed = static_cast<DWORD>(expanded.size() + 1);
    if (needed > size) {
        if (size > 0) destination[0] = 0;
        return needed;
    }
    std::copy_n(expanded.c_str(), needed, destination);
    return needed;
}

}  // namespace

std::string ExpandEnvironment(const std::string& source) {
    std::string expanded;
    for (std::size_t at = 0; at < source.size();) {
        const std::size_t end = source[at] == '%' ? source.find('%', at + 1) : std::string::npos;
        const char* value = end != std::string::npos
                                ? FindVariable(std::string_view(source).substr(at + 1, end - at - 1))
                                : nullptr;
        if (value == nullptr) {
            expanded += source[at++];
            continue;
        }
        expanded += value;
        at = end + 1;
    }
    return expanded;
}

}  // namespace platform

using platform::Fail;
using platform::PlatformCall;

DWORD ExpandEnvironmentStringsA(LPCSTR source, LPSTR destination, DWORD size) {
    PlatformCall call("ExpandEnvironmentStringsA", ERROR_NOT_ENOUGH_MEMORY);
    if (call.Fails()) return 0;
    try {
        return platform::DeliverExpanded(platform::ExpandEnvironment(source), destination, size);
    } catch (const std::bad_alloc&) {
        return Fail<DWORD>(ERROR_NOT_ENOUGH_MEMORY, 0);
    }
}

DWORD ExpandEnvironmentStringsW(LPCWSTR source, LPWSTR destination, DWORD size) {
    PlatformCall call("ExpandEnvironmentStringsW", ERROR_NOT_ENOUGH_MEMORY);
    if (call.Fails()) return 0;
    try {
        const std::string expanded = platform::ExpandEnvironment(platform::ToNarrow(source));
        return platform::DeliverExpanded(platform::ToWide(expanded), destination, size);
    } catch (const std::bad_alloc&) {
        return Fail<DWORD>(ERROR_NOT_ENOUGH_MEMORY, 0);
    }
}
