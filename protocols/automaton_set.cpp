// The run: a lane for each row that is still alive, first each on its own, then all together.
#include "protocols/automaton_set.h"

#include <algorithm>
#include <cstring>

class AutomatonSet::Search {
  public:
    Search(const AutomatonSet& set, const unsigned char* data, std::size_t length)
        : set_(set), data_(data), length_(length), patience_(length) {}

    Verdicts Run(RowMask rows);

  private:
    struct Lane {
        unsigned state;
        unsigned start;
        unsigned row;
    };

    // Most rows are decided by their first bytes, where a look at every byte is worth it.
    static constexpr std::size_t kAlone = 16;
    static constexpr std::size_t kBlock = 8;  // bytes between two looks at the states
    static constexpr unsigned kTogether = 4;  // lanes whose states fit the registers
    // Of a lone lane: passing over this many bytes saves one unit of patience, and leaving the start state
    // costs two, for what the processor didn't foresee.
    static constexpr std::size_t kBytesPerGain = 8;
    static constexpr std::size_t kLossPerDeparture = 2;

    static unsigned Next(const unsigned char* column, unsigned state);
    bool MayMatch(unsigned row);
    void Open(RowMask rows);
    void SkipRest(RowMask rows);
    void Stroll();
    void StepTogether();
    template <unsigned kLanes>
    std::size_t Step(Lane* lanes, std::size_t end);
    std::size_t Step(Lane* lanes, unsigned count, std::size_t end);
    void CloseEnded();

    const AutomatonSet& set_;
    const unsigned char* const data_;
    const std::size_t length_;
    std::size_t at_ = 0;
    Patience patience_;
    Lane lanes_[kMaxRows];  // in the order of the rows
    unsigned laneCount_ = 0;
    Verdicts verdicts_{};
};

AutomatonSet::Verdicts AutomatonSet::Run(RowMask rows, const unsigned char* data, std::size_t length) const {
    return Search(*this, data, length).Run(rows);
}

AutomatonSet::Verdicts AutomatonSet::Search::Run(RowMask rows) {
    rows &= set_.beginners_[data_[0]];
    if ((rows & ~set_.searchers_ & set_.resters_[data_[0]]) != 0) {
        // Several patterns begin with any number of line ends; there they needn't be stepped.
        SkipRest(rows);
        if (at_ == length_) return {0, rows};
        rows &= set_.beginners_[data_[at_]];
    }
    Open(rows);
    while (laneCount_ != 0 && at_ < length_) {
        if (laneCount_ == 1) Stroll();
        StepTogether();
        CloseEnded();
    }
    for (unsigned i = 0; i < laneCount_; ++i)
        verdicts_.undecided |= RowMask{1} << lanes_[i].row;
    verdicts_.undecided &= verdicts_.matched - 1;
    return verdicts_;
}

unsigned AutomatonSet::Search::Next(const unsigned char* column, unsigned state) {
    std::uint16_t next;
    std::memcpy(&next, column + state, sizeof(next));
    return next;
}

bool AutomatonSet::Search::MayMatch(unsigned row) {
    if ((set_.searchers_ >> row & 1) == 0) return true;
    return set_.tails_[row]->MayMatch(data_ + at_, length_ - at_, patience_);
}

/// Opens a lane for each row that its first bytes leave undecided, up to the first row that they match.
void AutomatonSet::Search::Open(RowMask rows) {
    const std::size_t end = at_ + std::min(kAlone, length_ - at_);
    for (; rows != 0; rows &= rows - 1) {
        const auto row = static_cast<unsigned>(__builtin_ctz(rows));
        if (!MayMatch(row)) {
            verdicts_.undecided |= RowMask{1} << row;
            continue;
        }
        unsigned state = set_.starts_[row];
        for (std::size_t i = at_; i < end && state > kAccepted; ++i)
            state = Next(set_.columns_[data_[i]], state);
        if (state == kDead) continue;
        if (state == kAccepted) {
            verdicts_.matched = RowMask{1} << row;
            break;
        }
        lanes_[laneCount_++] = {state, set_.starts_[row], row};
    }
    at_ = end;
}

/// Passes over the bytes that leave all rows in their start states, where they must be.
void AutomatonSet::Search::SkipRest(RowMask rows) {
    while (at_ < length_ && (rows & ~set_.resters_[data_[at_]]) == 0)
        ++at_;
}

/// Steps a lone lane for as long as it keeps coming back to its start state. The bytes that leave it there
/// needn't wait for one another, and many patterns are there most of the time.
void AutomatonSet::Search::Stroll() {
    Lane& lane = lanes_[0];
    while (lane.state == lane.start && at_ < length_ && patience_.Lasts()) {
        const std::size_t before = at_;
        SkipRest(RowMask{1} << lane.row);
        patience_.Gain((at_ - before) / kBytesPerGain);
        patience_.Lose(kLossPerDeparture);
        const std::size_t end = at_ + std::min(kBlock, length_ - at_);
        while (at_ < end) {
            lane.state = Next(set_.columns_[data_[at_++]], lane.state);
            if (lane.state <= lane.start) break;  // back, or at one of the ends
        }
    }
}

/// Steps all lanes until one has ended, or a lone one is back at its start, or the data ends.
void AutomatonSet::Search::StepTogether() {
    const bool fits = laneCount_ <= kTogether;
    const std::size_t end = fits ? length_ : at_ + std::min(kBlock, length_ - at_);
    std::size_t reached = at_;
    for (unsigned first = 0; first < laneCount_; first += kTogether)
        reached = Step(lanes_ + first, std::min(kTogether, laneCount_ - first), end);
    at_ = reached;
}

std::size_t AutomatonSet::Search::Step(Lane* lanes, unsigned count, std::size_t end) {
    switch (count) {
        case 1:
            return Step<1>(lanes, end);
        case 2:
            return Step<2>(lanes, end);
        case 3:
            return Step<3>(lanes, end);
        default:
            return Step<kTogether>(lanes, end);
    }
}

/// Returns the position that was reached. A lane that has ended stays so, so it is looked for only once in a
/// block.
template <unsigned kLanes>
std::size_t AutomatonSet::Search::Step(Lane* lanes, std::size_t end) {
    const unsigned char* const* const columns = set_.columns_.data();
    unsigned states[kLanes];
    for (unsigned k = 0; k < kLanes; ++k)
        states[k] = lanes[k].state;
    const auto step = [&](unsigned char byte) {
        const unsigned char* column = columns[byte];
        for (unsigned k = 0; k < kLanes; ++k)
            states[k] = Next(column, states[k]);
    };

    const bool mayRest = kLanes == 1 && patience_.Lasts();
    std::size_t at = at_;
    bool stop = false;
    while (!stop && end - at >= kBlock) {
        for (std::size_t i = 0; i < kBlock; ++i)
            step(data_[at + i]);
        at += kBlock;
        bool ended = false;
        bool away = false;
        for (unsigned k = 0; k < kLanes; ++k) {
            ended |= states[k] <= kAccepted;
            away |= states[k] != lanes[k].start;
        }
        stop = ended || (mayRest && !away);
    }
    for (; !stop && at < end; ++at)
        step(data_[at]);
    for (unsigned k = 0; k < kLanes; ++k)
        lanes[k].state = states[k];
    return at;
}

/// A match ends its lane and all of later rows.
void AutomatonSet::Search::CloseEnded() {
    unsigned kept = 0;
    for (unsigned i = 0; i < laneCount_; ++i) {
        const Lane lane = lanes_[i];
        if (lane.state == kDead) continue;
        if (lane.state == kAccepted) {
            verdicts_.matched = RowMask{1} << lane.row;
            break;
        }
        lanes_[kept++] = lane;
    }
    laneCount_ = kept;
}
