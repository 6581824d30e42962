// The construction numbers the labelled edges of the Regexp; a set of edges that may take the next byte is a
// bit mask, and each distinct mask is a state of the automaton.
#include "protocols/byte_automaton.h"

#include <algorithm>
#include <unordered_map>

namespace {

constexpr std::size_t kMaxEdges = 64;  // one bit each
constexpr std::size_t kMaxTableSize = 0xFFFF;

using EdgeMask = std::uint64_t;

/// Calls `visit` with the number of each edge in the mask.
template <typename Visitor>
void ForEachEdge(EdgeMask mask, Visitor visit) {
    for (; mask != 0; mask &= mask - 1)
        visit(static_cast<unsigned>(__builtin_ctzll(mask)));
}

class Builder {
  public:
    Builder(ByteAutomaton& automaton, const Regexp& regexp, unsigned flags)
        : automaton_(automaton), regexp_(regexp), flags_(flags) {}

    bool Build();

  private:
    bool NumberEdges();
    EdgeMask Reach(const RegState* from, bool& stops);
    void FindTakers();
    void FindByteClasses();
    bool FillTable();
    unsigned StateOf(EdgeMask mask);
    void FindTail();
    EdgeMask Predecessors(EdgeMask edges) const;
    bool NeverDies() const;

    ByteAutomaton& automaton_;
    const Regexp& regexp_;
    const unsigned flags_;

    std::vector<const RegEdge*> edges_;  // the labelled ones, by number
    std::vector<EdgeMask> outOf_;        // by state: its labelled edges
    std::vector<EdgeMask> follow_;       // by edge: the edges that may take the byte after it
    EdgeMask first_ = 0;                 // the edges that may take the first byte
    EdgeMask last_ = 0;                  // the edges after which the stop state is active

    std::array<EdgeMask, 256> takers_{};  // by byte: the edges that accept it
    std::vector<EdgeMask> classTakers_;   // by byte class
    std::unordered_map<EdgeMask, unsigned> states_;
    std::vector<EdgeMask> masks_;  // by state, in the order of their rows
};

bool Builder::Build() {
    if (!NumberEdges()) return false;
    FindTakers();
    FindByteClasses();
    automaton_.classCount = classTakers_.size();
    if (!FillTable()) return false;
    if (NeverDies()) FindTail();
    return true;
}

bool Builder::NumberEdges() {
    outOf_.assign(regexp_.stateCount, 0);
    for (int i = 0; i < regexp_.stateCount; ++i) {
        for (const RegEdge* edge = regexp_.states[i].labelledEdges; edge != nullptr; edge = edge->next) {
            if (edges_.size() == kMaxEdges) return false;
            outOf_[i] |= EdgeMask{1} << edges_.size();
            edges_.push_back(edge);
        }
    }
    bool acceptsNothing = false;
    first_ = Reach(regexp_.start, acceptsNothing);
    for (std::size_t i = 0; i < edges_.size(); ++i) {
        bool stops = false;
        follow_.push_back(Reach(edges_[i]->target, stops));
        if (stops) last_ |= EdgeMask{1} << i;
    }
    return true;
}

/// The labelled edges that NONE edges lead to from a state, and whether the stop state is among them.
EdgeMask Builder::Reach(const RegState* from, bool& stops) {
    std::vector<bool> seen(regexp_.stateCount);
    std::vector<const RegState*> open{from};
    EdgeMask found = 0;
    while (!open.empty()) {
        const RegState* state = open.back();
        open.pop_back();
        const auto index = state - regexp_.states.get();
        if (seen[index]) continue;
        seen[index] = true;
        found |= outOf_[index];
        if (state == regexp_.stop) stops = true;
        for (const RegEdge* edge = state->noneEdges; edge != nullptr; edge = edge->next) {
            open.push_back(edge->target);
        }
    }
    return found;
}

void Builder::FindTakers() {
    for (std::size_t i = 0; i < edges_.size(); ++i) {
        const std::uint32_t label = edges_[i]->label;
        const auto tryByte = [&](unsigned byte) {
            if (RegLabelAccepts(regexp_, label, byte, flags_)) takers_[byte] |= EdgeMask{1} << i;
        };
        if (label < 256) {
            tryByte(label);
            tryByte(label ^ 0x20);  // its other case, if it is a letter
        } else {
            for (unsigned byte = 0; byte < 256; ++byte)
                tryByte(byte);
        }
    }
}

void Builder::FindByteClasses() {
    std::size_t found = 0;
    for (unsigned byte = 0; byte < 256; ++byte) {
        // Neighbours mostly share their class.
        if (found < classTakers_.size() && classTakers_[found] != takers_[byte]) found = 0;
        while (found < classTakers_.size() && classTakers_[found] != takers_[byte])
            ++found;
        if (found == classTakers_.size()) classTakers_.push_back(takers_[byte]);
        automaton_.classOf[byte] = static_cast<std::uint8_t>(found);
    }
}

unsigned Builder::StateOf(EdgeMask mask) {
    const auto state = static_cast<unsigned>(ByteAutomaton::kStart + masks_.size());
    const auto [found, isNew] = states_.try_emplace(mask, state);
    if (isNew) masks_.push_back(mask);
    return found->second;
}

bool Builder::FillTable() {
    states_.reserve(128);
    StateOf(first_);
    for (std::size_t i = 0; i < masks_.size(); ++i) {
        if (masks_.size() * classTakers_.size() > kMaxTableSize) return false;
        const EdgeMask mask = masks_[i];
        for (const EdgeMask takers : classTakers_) {
            const EdgeMask taken = mask & takers;
            unsigned state = ByteAutomaton::kDead;
            if ((taken & last_) != 0) {
                state = ByteAutomaton::kAccepted;
            } else if (taken != 0) {
                EdgeMask after = 0;
                ForEachEdge(taken, [&](unsigned edge) { after |= follow_[edge]; });
                state = StateOf(after);
            }
            automaton_.next.push_back(static_cast<std::uint16_t>(state));
        }
    }
    return true;
}

bool Builder::NeverDies() const {
    return std::find(automaton_.next.begin(), automaton_.next.end(), ByteAutomaton::kDead) ==
           automaton_.next.end();
}

EdgeMask Builder::Predecessors(EdgeMask edges) const {
    EdgeMask found = 0;
    for (std::size_t i = 0; i < follow_.size(); ++i) {
        if ((follow_[i] & edges) != 0) found |= EdgeMask{1} << i;
    }
    return found;
}

/// Walks back from the ends of all matches for as long as no match can be shorter, and anchors the search at
/// the byte farthest back that has no alternative.
void Builder::FindTail() {
    TailSearch& tail = automaton_.tail;
    bool anchored = false;
    EdgeMask edges = last_;
    for (unsigned distance = 0; distance < TailSearch::kMaxLength; ++distance) {
        unsigned count = 0;
        unsigned char anyOfThem = 0;
        for (unsigned byte = 0; byte < 256; ++byte) {
            if ((takers_[byte] & edges) == 0) continue;
            anyOfThem = static_cast<unsigned char>(byte);
            tail.Allow(anyOfThem, distance);
            ++count;
        }
        if (count == 1) {
            anchored = true;
            tail.Anchor(anyOfThem, distance);
        }
        if (anchored) tail.SetLength(distance + 1);
        if ((edges & first_) != 0) return;
        edges = Predecessors(edges);
    }
}

}  // namespace

bool MakeDeterministic(ByteAutomaton& automaton, const Regexp& regexp, unsigned flags) {
    automaton = ByteAutomaton();
    return Builder(automaton, regexp, flags).Build();
}
