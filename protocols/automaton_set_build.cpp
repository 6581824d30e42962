// Joins the automata of single patterns: bytes that none of them tells apart share a column, and each has a
// range of states of its own in every column.
#include <new>
#include <utility>

#include "protocols/automaton_set.h"

namespace {

constexpr std::size_t kMaxStates = 4096;  // of all rows; as offsets in bytes they fit 16 bits

/// A partition of the bytes, refined by one automaton after another.
class ByteClasses {
  public:
    std::size_t Count() const { return representatives_.size(); }
    unsigned Of(unsigned byte) const { return classOf_[byte]; }
    unsigned char Representative(std::size_t byteClass) const { return representatives_[byteClass]; }

    void Refine(const ByteAutomaton& automaton) {
        constexpr std::uint16_t kNone = 0xFFFF;
        numbers_.assign(Count() * automaton.classCount, kNone);
        representatives_.clear();
        for (unsigned byte = 0; byte < 256; ++byte) {
            std::uint16_t& number = numbers_[classOf_[byte] * automaton.classCount + automaton.classOf[byte]];
            if (number == kNone) {
                number = static_cast<std::uint16_t>(Count());
                representatives_.push_back(static_cast<unsigned char>(byte));
            }
            classOf_[byte] = static_cast<std::uint8_t>(number);
        }
    }

  private:
    std::array<std::uint8_t, 256> classOf_{};
    std::vector<unsigned char> representatives_ = std::vector<unsigned char>(1);
    std::vector<std::uint16_t> numbers_;  // by old class and class of the automaton: the new one
};

}  // namespace

class AutomatonSet::Joiner {
  public:
    explicit Joiner(AutomatonSet& set) : set_(set) {}

    void Add(std::size_t row, const Pattern& pattern);
    void Join();

  private:
    struct Member {
        std::size_t row;
        std::size_t firstState;  // the index of its start state in a column
        ByteAutomaton automaton;
    };

    static std::uint16_t Joined(const Member& member, unsigned state);
    void FillColumn(std::size_t byteClass);

    AutomatonSet& set_;
    std::vector<Member> members_;
    std::size_t stateCount_ = ByteAutomaton::kStart;
    ByteClasses classes_;
};

void AutomatonSet::Joiner::Add(std::size_t row, const Pattern& pattern) {
    members_.push_back({row, stateCount_, {}});
    ByteAutomaton& automaton = members_.back().automaton;
    if (!MakeDeterministic(automaton, *pattern.regexp, pattern.flags) ||
        stateCount_ + automaton.StateCount() > kMaxStates) {
        members_.pop_back();
        return;
    }
    set_.rows_ |= RowMask{1} << row;
    set_.starts_[row] = Joined(members_.back(), ByteAutomaton::kStart);
    stateCount_ += automaton.StateCount();
    classes_.Refine(automaton);
    if (!automaton.tail.IsUsable()) return;
    set_.tails_[row] = std::make_unique<TailSearch>(automaton.tail);
    set_.searchers_ |= RowMask{1} << row;
}

void AutomatonSet::Joiner::Join() {
    set_.table_.resize(classes_.Count() * stateCount_);
    for (std::size_t byteClass = 0; byteClass < classes_.Count(); ++byteClass)
        FillColumn(byteClass);
    for (unsigned byte = 0; byte < 256; ++byte) {
        const std::uint16_t* column = &set_.table_[classes_.Of(byte) * stateCount_];
        set_.columns_[byte] = reinterpret_cast<const unsigned char*>(column);
        for (const Member& member : members_) {
            const RowMask row = RowMask{1} << member.row;
            const unsigned next = column[member.firstState];
            if (next != kDead) set_.beginners_[byte] |= row;
            if (next == set_.starts_[member.row]) set_.resters_[byte] |= row;
        }
    }
}

std::uint16_t AutomatonSet::Joiner::Joined(const Member& member, unsigned state) {
    if (state == ByteAutomaton::kDead) return kDead;
    if (state == ByteAutomaton::kAccepted) return kAccepted;
    const std::size_t index = member.firstState + state - ByteAutomaton::kStart;
    return static_cast<std::uint16_t>(index * sizeof(std::uint16_t));
}

void AutomatonSet::Joiner::FillColumn(std::size_t byteClass) {
    std::uint16_t* column = &set_.table_[byteClass * stateCount_];
    column[kAccepted / sizeof(std::uint16_t)] = kAccepted;
    const unsigned char byte = classes_.Representative(byteClass);
    for (const Member& member : members_) {
        const ByteAutomaton& automaton = member.automaton;
        const std::uint16_t* next = &automaton.next[automaton.classOf[byte]];
        for (std::size_t i = 0; i < automaton.StateCount(); ++i) {
            column[member.firstState + i] = Joined(member, next[i * automaton.classCount]);
        }
    }
}

void AutomatonSet::Build(const Patterns& patterns) {
    *this = AutomatonSet();
    try {
        Joiner joiner(*this);
        for (std::size_t row = 0; row < kMaxRows; ++row) {
            const bool firstMatch = (patterns[row].flags & kRegFirstMatch) != 0;
            if (patterns[row].regexp != nullptr && firstMatch) joiner.Add(row, patterns[row]);
        }
        joiner.Join();
    } catch (const std::bad_alloc&) {
        *this = AutomatonSet();
    }
}
