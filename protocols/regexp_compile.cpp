// The pattern compiler: one left-to-right parse that is run twice, first only to count the states and edges,
// then to build them in arrays of exactly that size. It keeps no stack, so nesting costs no more than any
// other byte.
//
// Invariants of the construction: a repeated or optional piece has an entry and an exit of its own, so that
// no loop leads back into what stands before it; a group's exit is the state right after its entry; while a
// group is open, the one edge that leaves its exit points at the exit of the group around it.
#include <climits>
#include <cstdio>
#include <cstring>
#include <new>

#include "protocols/regexp.h"

namespace {

// At most three states and three edges stand for a byte of a pattern: with this bound no count overflows.
constexpr std::size_t kMaxPatternBytes = std::size_t{16} * 1024 * 1024;

// ASCII only, whatever locale the host process has set.
bool IsUpper(unsigned c) {
    return c >= 'A' && c <= 'Z';
}
bool IsLower(unsigned c) {
    return c >= 'a' && c <= 'z';
}
bool IsAlpha(unsigned c) {
    return IsUpper(c) || IsLower(c);
}
bool IsDigit(unsigned c) {
    return c >= '0' && c <= '9';
}
bool IsAlnum(unsigned c) {
    return IsAlpha(c) || IsDigit(c);
}
bool IsXdigit(unsigned c) {
    return IsDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}
bool IsGraph(unsigned c) {
    return c > 32 && c < 127;
}
bool IsPrint(unsigned c) {
    return c >= 32 && c < 127;
}
bool IsPunct(unsigned c) {
    return IsGraph(c) && !IsAlnum(c);
}
bool IsCntrl(unsigned c) {
    return c < 32 || c == 127;
}
bool IsSpace(unsigned c) {
    return c == 32 || (c >= 9 && c <= 13);
}

struct NamedClass {
    const char* text;
    bool (*has)(unsigned byte);
};

constexpr NamedClass kNamedClasses[] = {
    {"[:alnum:]", IsAlnum}, {"[:alpha:]", IsAlpha}, {"[:cntrl:]", IsCntrl},   {"[:digit:]", IsDigit},
    {"[:graph:]", IsGraph}, {"[:lower:]", IsLower}, {"[:print:]", IsPrint},   {"[:punct:]", IsPunct},
    {"[:space:]", IsSpace}, {"[:upper:]", IsUpper}, {"[:xdigit:]", IsXdigit},
};

unsigned HexValue(unsigned c) {
    return IsDigit(c) ? c - '0' : (c | 0x20) - 'a' + 10;
}

bool IsQuantifier(unsigned c) {
    return c == '*' || c == '+' || c == '?';
}

/// One pass over the pattern. States are handled by index, which the counting pass has as well.
class CompilerPass {
  public:
    CompilerPass(Regexp& regexp, const char* pattern)
        : regexp_(regexp), next_(reinterpret_cast<const unsigned char*>(pattern)) {}

    int Run();

  private:
    int NewState() { return regexp_.stateCount++; }
    void AddEdge(int from, int to, std::uint32_t label);

    void OpenGroup();
    int CloseGroup();
    void Quantify(int entry, int exit);

    int ParseAtom();
    int ParseEscape(unsigned& byte);
    int ParseClass(std::uint32_t& label);
    int ParseMembers(RegClass& members);
    int ParseMember(unsigned& byte);
    int ParseNamedClass(RegClass& members);

    Regexp& regexp_;
    const unsigned char* next_;
    int at_ = 0;    // where the next piece of the concatenation begins
    int exit_ = 0;  // of the innermost open group, or the stop state; not kept up by the counting pass
    int depth_ = 0;
};

int CompilerPass::Run() {
    at_ = NewState();
    exit_ = NewState();
    for (;;) {
        int error = 0;
        switch (*next_) {
            case '\0':
                AddEdge(at_, exit_, kLabelNone);
                return depth_ == 0 ? 0 : kRegInvalid;
            case '|':
                ++next_;
                AddEdge(at_, exit_, kLabelNone);
                at_ = exit_ - 1;
                break;
            case '(':
                ++next_;
                OpenGroup();
                break;
            case ')':
                ++next_;
                error = CloseGroup();
                break;
            case '*':
            case '+':
            case '?':
            case ']':
                return kRegInvalid;
            default:
                error = ParseAtom();
        }
        if (error != 0) return error;
    }
}

void CompilerPass::AddEdge(int from, int to, std::uint32_t label) {
    const int index = regexp_.edgeCount++;
    if (regexp_.counting) return;
    RegState& state = regexp_.states[from];
    RegEdge*& list = label == kLabelNone ? state.noneEdges : state.labelledEdges;
    regexp_.edges[index] = {&regexp_.states[to], list, label};
    list = &regexp_.edges[index];
}

void CompilerPass::OpenGroup() {
    const int entry = NewState();
    const int exit = NewState();
    AddEdge(at_, entry, kLabelNone);
    AddEdge(exit, exit_, kLabelNone);
    at_ = entry;
    exit_ = exit;
    ++depth_;
}

int CompilerPass::CloseGroup() {
    if (depth_ == 0) return kRegInvalid;
    --depth_;
    const int exit = exit_;
    const int after = NewState();
    AddEdge(at_, exit, kLabelNone);
    if (!regexp_.counting) {
        RegEdge* leaving = regexp_.states[exit].noneEdges;
        exit_ = static_cast<int>(leaving->target - regexp_.states.get());
        leaving->target = &regexp_.states[after];
    }
    Quantify(exit - 1, exit);
    at_ = after;
    return 0;
}

/// Takes a quantifier if one comes next and applies it to the piece.
void CompilerPass::Quantify(int entry, int exit) {
    if (!IsQuantifier(*next_)) return;
    const unsigned char quantifier = *next_++;
    if (quantifier != '+') AddEdge(entry, exit, kLabelNone);
    if (quantifier != '?') AddEdge(exit, entry, kLabelNone);
}

/// Any piece but a group.
int CompilerPass::ParseAtom() {
    std::uint32_t label = 0;
    int error = 0;
    switch (*next_) {
        case '.':
            ++next_;
            label = kLabelAny;
            break;
        case '[':
            ++next_;
            error = ParseClass(label);
            break;
        case '\\':
            error = ParseEscape(label);
            break;
        default:
            label = *next_++;
    }
    if (error != 0) return error;

    int entry = at_;
    if (IsQuantifier(*next_)) {
        entry = NewState();
        AddEdge(at_, entry, kLabelNone);
    }
    at_ = NewState();
    AddEdge(entry, at_, label);
    Quantify(entry, at_);
    return 0;
}

int CompilerPass::ParseEscape(unsigned& byte) {
    static const char kLetters[] = "0abtnvfr";
    static const unsigned char kBytes[] = {0, 7, 8, 9, 10, 11, 12, 13};
    const unsigned char letter = *++next_;
    if (letter == '\0') {
        std::fputs("Invalid escape\n", stderr);
        return kRegBadEscape;
    }
    ++next_;
    if (letter == 'x' || letter == 'X') {
        const unsigned char high = next_[0];
        const unsigned char low = high == '\0' ? '\0' : next_[1];
        if (!IsXdigit(high) || !IsXdigit(low)) {
            std::fprintf(stderr, "Invalid escape code '%c%c'\n", high == '\0' ? '?' : high,
                         low == '\0' ? '?' : low);
            return kRegBadEscape;
        }
        byte = HexValue(high) * 16 + HexValue(low);
        next_ += 2;
        return 0;
    }
    const char* found = std::strchr(kLetters, letter);
    byte = found != nullptr ? kBytes[found - kLetters] : letter;
    return 0;
}

/// After "[": the class up to and with its "]".
int CompilerPass::ParseClass(std::uint32_t& label) {
    const int index = regexp_.classCount;
    if (index == kMaxRegClasses) return kRegNoMemory;
    ++regexp_.classCount;
    label = kLabelClass + static_cast<std::uint32_t>(index);

    const bool negated = *next_ == '^';
    if (negated) ++next_;
    RegClass members{};
    const int error = ParseMembers(members);
    if (error != 0 || regexp_.counting) return error;
    if (negated) {
        for (std::uint32_t& word : members.words)
            word = ~word;
    }
    regexp_.classes[index].reset(new (std::nothrow) RegClass(members));
    return regexp_.classes[index] != nullptr ? 0 : kRegNoMemory;
}

int CompilerPass::ParseMembers(RegClass& members) {
    constexpr unsigned kNoMember = UINT_MAX;
    unsigned single = kNoMember;  // the last member, while a range may start at it
    for (;;) {
        int error = 0;
        if (*next_ == ']') {
            ++next_;
            return 0;
        }
        if (*next_ == '[') {
            single = kNoMember;
            error = ParseNamedClass(members);
        } else if (*next_ != '-') {
            error = ParseMember(single);
            if (error == 0) members.Add(single);
        } else {
            if (single == kNoMember) return kRegInvalid;
            ++next_;
            if (*next_ == ']' || *next_ == '[') continue;  // a dash that makes no range is dropped
            unsigned last = 0;
            error = ParseMember(last);
            if (error == 0 && last < single) error = kRegInvalid;
            for (; error == 0 && single <= last; ++single)
                members.Add(single);
            single = kNoMember;
        }
        if (error != 0) return error;
    }
}

int CompilerPass::ParseMember(unsigned& byte) {
    if (*next_ == '\0') return kRegInvalid;
    if (*next_ == '\\') return ParseEscape(byte);
    byte = *next_++;
    return 0;
}

int CompilerPass::ParseNamedClass(RegClass& members) {
    for (const NamedClass& named : kNamedClasses) {
        const std::size_t length = std::strlen(named.text);
        if (std::strncmp(reinterpret_cast<const char*>(next_), named.text, length) != 0) continue;
        for (unsigned byte = 0; byte < 256; ++byte) {
            if (named.has(byte)) members.Add(byte);
        }
        next_ += length;
        return 0;
    }
    return kRegInvalid;
}

/// Allocates what the first pass counted and runs the second.
int Build(Regexp& regexp, const char* pattern) {
    regexp.states.reset(new (std::nothrow) RegState[regexp.stateCount]());
    regexp.edges.reset(new (std::nothrow) RegEdge[regexp.edgeCount]());
    if (regexp.states == nullptr || regexp.edges == nullptr) return kRegNoMemory;
    regexp.stateCount = regexp.edgeCount = regexp.classCount = 0;
    regexp.counting = false;
    const int error = CompilerPass(regexp, pattern).Run();
    regexp.start = &regexp.states[0];
    regexp.stop = &regexp.states[1];
    return error;
}

}  // namespace

int RegexpCompile(Regexp& regexp, const char* pattern) {
    RegexpFree(regexp);
    if (pattern == nullptr) return kRegInvalid;
    if (std::strlen(pattern) > kMaxPatternBytes) return kRegNoMemory;
    regexp.counting = true;
    int error = CompilerPass(regexp, pattern).Run();
    if (error == 0) error = Build(regexp, pattern);
    if (error != 0) RegexpFree(regexp);
    return error;
}

void RegexpFree(Regexp& regexp) {
    regexp = Regexp();
}
