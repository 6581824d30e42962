// A small regular-expression engine over bytes: a pattern becomes a nondeterministic automaton (states joined
// by labelled edges) and the automaton runs over raw connection bytes with all of its active states at once.
// It never backtracks, so its time is bytes times states for any pattern and any data, and matching never
// allocates.
//
// Threads: a compiled Regexp is only read and may be run by any number of threads; a RegMatcher belongs to
// one caller at a time. No locks, no process-wide state, no exceptions.
//
// Patterns are anchored at the first byte of the data; one that may start later begins with ".*".
#pragma once

#include <array>
#include <cstdint>
#include <memory>

/// Results of RegexpMatch, also the verdicts of protocol rows and validators.
inline constexpr int kMatch = 2;
inline constexpr int kUndecided = 1;
inline constexpr int kNoMatch = 0;

/// Errors: negated error numbers; a bad escape has a value of its own.
inline constexpr int kRegInvalid = -22;
inline constexpr int kRegNoMemory = -12;
inline constexpr int kRegBadEscape = -1;

/// Flags of RegexpMatch, combined by or. No REG_ names: POSIX has macros of those, with other values.
enum RegMatchFlag : unsigned {
    kRegFirstMatch = 1,  ///< report a match as soon as the stop state is active after a byte
    kRegIcase = 4,       ///< ASCII letters match either case
};

/// Edge labels: 0 to 255 are the bytes themselves, kLabelClass + k is class k of the same pattern.
inline constexpr std::uint32_t kLabelAny = 256;   ///< any byte at all
inline constexpr std::uint32_t kLabelNone = 257;  ///< taken without consuming a byte
inline constexpr std::uint32_t kLabelClass = 300;

inline constexpr int kMaxRegClasses = 16;

struct RegState;

struct RegEdge {
    RegState* target;
    RegEdge* next;  ///< in the same list of the same state
    std::uint32_t label;
};

struct RegState {
    RegEdge* noneEdges;
    RegEdge* labelledEdges;
};

/// A set of bytes: bit b of word b / 32 is set when byte b belongs.
struct RegClass {
    std::uint32_t words[8];

    bool Has(unsigned byte) const { return (words[byte / 32] >> (byte % 32) & 1) != 0; }
    void Add(unsigned byte) { words[byte / 32] |= 1u << (byte % 32); }
    void Remove(unsigned byte) { words[byte / 32] &= ~(1u << (byte % 32)); }
};
static_assert(sizeof(RegClass) == 32);

/// One compiled pattern. Owns its arrays; the states and edges point into them, so it can be moved but not
/// copied.
struct Regexp {
    RegState* start = nullptr;
    RegState* stop = nullptr;  ///< the only accepting state
    std::unique_ptr<RegState[]> states;
    std::unique_ptr<RegEdge[]> edges;
    std::array<std::unique_ptr<RegClass>, kMaxRegClasses> classes;
    int stateCount = 0;
    int edgeCount = 0;
    int classCount = 0;
    bool counting = false;  ///< first pass of a compilation: nothing is written, only counted
};

/// The members of one step of a run, each once, in the order they were added.
struct RegStateSet {
    std::unique_ptr<std::uint32_t[]> bitmap;  ///< one bit per state
    std::unique_ptr<const RegState*[]> members;
    int wordCount = 0;  ///< of the bitmap
    int memberCount = 0;
    int capacity = 0;  ///< the largest state count the set can serve
    const RegState* base =
        nullptr;  ///< states of the pattern being run: a state's index is its distance from here
};

struct RegMatcher {
    RegStateSet current;
    RegStateSet next;
};

/// A piece of the data; several in a row are one stream.
struct DataChunk {
    std::int32_t length;
    const void* data;
};

/// Compiles a NUL-terminated pattern, releasing what `regexp` held before.
/// Returns 0; kRegInvalid for a null pattern or a syntax error, kRegBadEscape for an escape cut short (with a
/// line on the standard error stream), kRegNoMemory when memory or the 16 classes run out. After an error the
/// Regexp holds nothing.
int RegexpCompile(Regexp& regexp, const char* pattern);

/// Releases the states, edges and classes; safe on a Regexp that holds none.
void RegexpFree(Regexp& regexp);

/// Allocates both sets for patterns of up to `maxStates` states. Returns 0, kRegInvalid when it is negative,
/// or kRegNoMemory with nothing kept.
int RegMatcherInit(RegMatcher& matcher, int maxStates);

void RegMatcherFree(RegMatcher& matcher);

/// Runs a pattern over the chunks from their first byte. Nothing is carried from one call to the next.
/// Returns kMatch, kUndecided (the data is consistent with a match but doesn't complete one), kNoMatch (no
/// continuation can match; it ends the run early), kRegInvalid for a null chunk array, a negative count, a
/// chunk of negative length or a Regexp that holds nothing, kRegNoMemory when the pattern is larger than the
/// matcher. With kRegFirstMatch kMatch means that some prefix of at least one byte is in the pattern's
/// language (or that there are no bytes and the pattern accepts none); without it, that the whole data is.
int RegexpMatch(RegMatcher& matcher, const Regexp& regexp, const DataChunk* chunks, int chunkCount,
                unsigned flags);

/// Whether an edge with this label (any but kLabelNone) takes the byte under the flags.
bool RegLabelAccepts(const Regexp& regexp, std::uint32_t label, unsigned byte, unsigned flags);
