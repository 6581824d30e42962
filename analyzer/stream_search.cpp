// See stream_search.h.
#include "analyzer/stream_search.h"

#include <algorithm>
#include <stdexcept>

namespace {

void Compile(const std::string& text, Regexp& regexp) {
    if (text.empty()) throw std::invalid_argument("the pattern is empty");
    if (text.size() > kMostPatternBytes) {
        throw std::invalid_argument("the pattern is longer than " + std::to_string(kMostPatternBytes) +
                                    " bytes");
    }
    if (text.find('\0') != std::string::npos)
        throw std::invalid_argument("the pattern has a zero byte; write \\0");
    switch (RegexpCompile(regexp, text.c_str())) {
        case 0:
            return;
        case kRegBadEscape:
            throw std::invalid_argument("the pattern has an escape that is cut short");
        case kRegNoMemory:
            throw std::invalid_argument("the pattern is too large; it may have " +
                                        std::to_string(kMaxRegClasses) + " classes [...]");
        default:
            throw std::invalid_argument("the pattern is no regular expression");
    }
}

/// The start state and all that is reached from it without a byte.
std::vector<const RegState*> StartStates(const Regexp& regexp) {
    std::vector<const RegState*> states = {regexp.start};
    for (std::size_t at = 0; at < states.size(); ++at) {
        for (const RegEdge* edge = states[at]->noneEdges; edge != nullptr; edge = edge->next) {
            if (std::find(states.begin(), states.end(), edge->target) == states.end())
                states.push_back(edge->target);
        }
    }
    return states;
}

}  // namespace

SearchPattern::SearchPattern(const std::string& text, bool ignoreCase) : flags_(ignoreCase ? kRegIcase : 0u) {
    Compile(text, regexp_);
    starts_ = StartStates(regexp_);
    if (std::find(starts_.begin(), starts_.end(), regexp_.stop) != starts_.end())
        throw std::invalid_argument("the pattern fits nothing at all, and so everywhere");
    for (const RegState* state : starts_) {
        for (const RegEdge* edge = state->labelledEdges; edge != nullptr; edge = edge->next) {
            for (unsigned byte = 0; byte < 256; ++byte) {
                if (Accepts(*edge, byte)) beginsWith_.set(byte);
            }
        }
    }
}

StreamSearch::StreamSearch(const SearchPattern& pattern)
    : pattern_(pattern), enteredAt_(static_cast<std::size_t>(pattern.regexp_.stateCount), 0) {}

std::optional<StreamSearch::Match> StreamSearch::Look(const unsigned char* bytes, std::size_t count,
                                                      std::size_t& looked) {
    for (looked = 0; looked < count;) {
        const unsigned byte = bytes[looked];
        ++looked;
        if (threads_.empty() && !pattern_.beginsWith_[byte]) {
            ++position_;
            continue;
        }
        Step(byte);
        if (!matchBegin_) continue;
        const std::size_t length = LengthFrom(*matchBegin_);
        threads_.clear();
        gone_ = position_;
        return Match{length, position_ - *matchBegin_ == length};
    }
    return std::nullopt;
}

std::size_t StreamSearch::OpenBytes() const {
    return threads_.empty() ? 0 : LengthFrom(threads_.front().begin);
}

std::size_t StreamSearch::LengthFrom(std::uint64_t begin) const {
    const std::uint64_t length = position_ - std::max(begin, gone_);
    return static_cast<std::size_t>(std::min<std::uint64_t>(length, kMostMatchBytes));
}

void StreamSearch::Step(unsigned byte) {
    next_.clear();
    matchBegin_.reset();
    const std::uint64_t begin = position_++;
    for (const Thread& thread : threads_) {
        for (const RegEdge* edge = thread.state->labelledEdges; edge != nullptr; edge = edge->next) {
            if (pattern_.Accepts(*edge, byte)) Enter(edge->target, thread.begin);
        }
    }
    if (pattern_.beginsWith_[byte]) {
        for (const RegState* state : pattern_.starts_) {
            for (const RegEdge* edge = state->labelledEdges; edge != nullptr; edge = edge->next) {
                if (pattern_.Accepts(*edge, byte)) Enter(edge->target, begin);
            }
        }
    }
    threads_.swap(next_);
}

/// Enters a state and all that is reached from it without a byte. Who enters first began first, and stays.
void StreamSearch::Enter(const RegState* state, std::uint64_t begin) {
    toEnter_.assign(1, state);
    while (!toEnter_.empty()) {
        const RegState* const entered = toEnter_.back();
        toEnter_.pop_back();
        std::uint64_t& at = enteredAt_[static_cast<std::size_t>(entered - pattern_.regexp_.states.get())];
        if (at == position_) continue;
        at = position_;
        if (entered == pattern_.regexp_.stop) matchBegin_ = begin;
        next_.push_back({entered, begin});
        for (const RegEdge* edge = entered->noneEdges; edge != nullptr; edge = edge->next)
            toEnter_.push_back(edge->target);
    }
}
