// The run of a compiled pattern: all active states are stepped for every byte. Within a run a set clears only
// what its members occupy, so a step costs the active states and their edges, never the whole pattern.
#include <algorithm>
#include <cstddef>
#include <limits>
#include <new>
#include <utility>

#include "protocols/regexp.h"

namespace {

/// A byte and, when case is ignored and it is a letter, its other case; else the byte twice.
struct FoldedByte {
    unsigned byte;
    unsigned other;

    FoldedByte(unsigned value, unsigned flags) : byte(value), other(value) {
        const unsigned lower = value | 0x20;
        if ((flags & kRegIcase) != 0 && lower >= 'a' && lower <= 'z') other = value ^ 0x20;
    }
};

bool Accepts(const Regexp& regexp, std::uint32_t label, FoldedByte c) {
    if (label < 256) return label == c.byte || label == c.other;
    if (label == kLabelAny) return true;
    const RegClass& members = *regexp.classes[label - kLabelClass];
    return members.Has(c.byte) || members.Has(c.other);
}

bool Has(const RegStateSet& set, const RegState* state) {
    const std::ptrdiff_t index = state - set.base;
    return (set.bitmap[index / 32] >> (index % 32) & 1) != 0;
}

void Add(RegStateSet& set, const RegState* state) {
    if (Has(set, state)) return;
    const std::ptrdiff_t index = state - set.base;
    set.bitmap[index / 32] |= 1u << (index % 32);
    set.members[set.memberCount++] = state;
}

void Empty(RegStateSet& set) {
    for (int i = 0; i < set.memberCount; ++i)
        set.bitmap[(set.members[i] - set.base) / 32] = 0;
    set.memberCount = 0;
}

/// Whatever an earlier run left: its pattern may be gone, so nothing of it is looked at.
void Restart(RegStateSet& set, const RegState* base) {
    std::fill_n(set.bitmap.get(), set.wordCount, 0u);
    set.memberCount = 0;
    set.base = base;
}

/// Adds all that NONE edges lead to; members added on the way are walked too.
void Close(RegStateSet& set) {
    for (int i = 0; i < set.memberCount; ++i) {
        for (const RegEdge* edge = set.members[i]->noneEdges; edge != nullptr; edge = edge->next) {
            Add(set, edge->target);
        }
    }
}

void Step(const RegStateSet& from, RegStateSet& to, const Regexp& regexp, FoldedByte c) {
    Empty(to);
    for (int i = 0; i < from.memberCount; ++i) {
        for (const RegEdge* edge = from.members[i]->labelledEdges; edge != nullptr; edge = edge->next) {
            if (Accepts(regexp, edge->label, c)) Add(to, edge->target);
        }
    }
    Close(to);
}

int InitSet(RegStateSet& set, int maxStates) {
    const auto states = static_cast<std::size_t>(maxStates);
    if (states > std::numeric_limits<std::ptrdiff_t>::max() / sizeof(RegState*)) return kRegNoMemory;
    set.wordCount = maxStates / 32 + 1;
    set.bitmap.reset(new (std::nothrow) std::uint32_t[set.wordCount]());
    set.members.reset(new (std::nothrow) const RegState*[states]);
    set.capacity = maxStates;
    return set.bitmap != nullptr && set.members != nullptr ? 0 : kRegNoMemory;
}

}  // namespace

int RegMatcherInit(RegMatcher& matcher, int maxStates) {
    RegMatcherFree(matcher);
    if (maxStates < 0) return kRegInvalid;
    int error = InitSet(matcher.current, maxStates);
    if (error == 0) error = InitSet(matcher.next, maxStates);
    if (error != 0) RegMatcherFree(matcher);
    return error;
}

void RegMatcherFree(RegMatcher& matcher) {
    matcher = RegMatcher();
}

int RegexpMatch(RegMatcher& matcher, const Regexp& regexp, const DataChunk* chunks, int chunkCount,
                unsigned flags) {
    RegStateSet* current = &matcher.current;
    RegStateSet* next = &matcher.next;
    if (chunkCount < 0 || chunks == nullptr || regexp.states == nullptr) return kRegInvalid;
    if (regexp.stateCount > current->capacity || regexp.stateCount > next->capacity) return kRegNoMemory;

    Restart(*current, regexp.states.get());
    Restart(*next, regexp.states.get());
    Add(*current, regexp.start);
    Close(*current);
    for (int i = 0; i < chunkCount; ++i) {
        if (chunks[i].length < 0) return kRegInvalid;
        const auto* bytes = static_cast<const unsigned char*>(chunks[i].data);
        for (std::int32_t k = 0; k < chunks[i].length; ++k) {
            Step(*current, *next, regexp, FoldedByte(bytes[k], flags));
            std::swap(current, next);
            if ((flags & kRegFirstMatch) != 0 && Has(*current, regexp.stop)) return kMatch;
            if (current->memberCount == 0) return kNoMatch;
        }
    }
    return Has(*current, regexp.stop) ? kMatch : kUndecided;
}

bool RegLabelAccepts(const Regexp& regexp, std::uint32_t label, unsigned byte, unsigned flags) {
    return Accepts(regexp, label, FoldedByte(byte, flags));
}
