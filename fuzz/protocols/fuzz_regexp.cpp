// Compiles a pattern and runs it over data. Input: a byte of flags, the pattern up to a zero byte, the data.
// Beside the sanitizers it checks that chunks make no difference, and that the deterministic automaton
// agrees.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "protocols/automaton_set.h"
#include "protocols/regexp.h"

namespace {

// Longer ones only cost time: nothing in the engine depends on size, and the bounds have tests of their own.
constexpr std::size_t kMaxPattern = 512;
constexpr std::size_t kMaxData = 1024;

void Check(bool holds) {
    if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
    if (size == 0) return 0;
    const unsigned flags = input[0] & (kRegFirstMatch | kRegIcase);
    const std::uint8_t* const end = input + size;
    const std::uint8_t* const zero = std::find(input + 1, end, 0);
    const std::string pattern(input + 1, zero);
    const std::uint8_t* const data = zero == end ? end : zero + 1;
    const auto length = static_cast<std::int32_t>(end - data);
    if (pattern.size() > kMaxPattern || static_cast<std::size_t>(length) > kMaxData) return 0;

    Regexp regexp;
    const int error = RegexpCompile(regexp, pattern.c_str());
    Check(error == 0 || error == kRegInvalid || error == kRegBadEscape || error == kRegNoMemory);
    if (error != 0) return 0;

    RegMatcher matcher;
    Check(RegMatcherInit(matcher, regexp.stateCount) == 0);
    const DataChunk whole{length, data};
    const int result = RegexpMatch(matcher, regexp, &whole, 1, flags);
    Check(result == kMatch || result == kUndecided || result == kNoMatch);

    const std::int32_t third = length / 3;
    const DataChunk chunks[] = {{third, data}, {0, nullptr}, {length - third, data + third}};
    Check(RegexpMatch(matcher, regexp, chunks, 3, flags) == result);

    AutomatonSet::Patterns patterns;
    patterns[0] = {&regexp, flags};
    AutomatonSet set;
    set.Build(patterns);
    if (set.Rows() == 0 || length == 0) return 0;
    const AutomatonSet::Verdicts verdicts = set.Run(1, data, static_cast<std::size_t>(length));
    Check(verdicts.matched == (result == kMatch ? 1u : 0u));
    Check(verdicts.undecided == (result == kUndecided ? 1u : 0u));
    return 0;
}
