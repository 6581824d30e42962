// Compilation of a protocol table and the search through its rows; see the header.
#include "protocols/compiled_patterns.h"

#include <algorithm>
#include <cstdio>

namespace {

bool PortsFit(const ProtocolEntry& entry, const ProtocolSample& sample) {
    return (entry.localPort == -1 || entry.localPort == sample.localPort) &&
           (entry.remotePort == -1 || entry.remotePort == sample.remotePort);
}

}  // namespace

int JudgeBeyondPatterns(const ProtocolEntry& entry, const ProtocolSample& sample, int verdict) {
    if (entry.validator != nullptr) verdict = entry.validator(sample, verdict);
    return verdict == kMatch && !PortsFit(entry, sample) ? kNoMatch : verdict;
}

int CompiledPatterns::Compile(const ProtocolEntry* table, Engine engine) {
    table_ = table;
    while (table[rowCount_].id != kProtocolTableEnd && rowCount_ < kMaxRows)
        ++rowCount_;
    const int error = CompileRules();
    if (engine == Engine::kDeterministic) BuildAutomata();
    for (std::size_t row = 0; row < rowCount_; ++row) {
        const RowMask bit = RowMask{1} << row;
        const auto isJoined = [&](const Side& side) {
            return side.regexps[row].states == nullptr || (side.automata.Rows() & bit) != 0;
        };
        const bool byAutomata = table[row].validator == nullptr && isJoined(client_) && isJoined(server_);
        (byAutomata ? automatonRows_ : otherRows_) |= bit;
        if (byAutomata && (table[row].localPort != -1 || table[row].remotePort != -1)) portRows_ |= bit;
    }
    return error;
}

int CompiledPatterns::CompileRules() {
    for (std::size_t row = 0; row < rowCount_; ++row) {
        const ProtocolEntry& entry = table_[row];
        int error = CompileRule(client_, row, entry.client.pattern);
        if (error != 0) {
            std::fprintf(stderr, "Could not compile client regex '%s' for protocol %s\n",
                         entry.client.pattern, GetProtocolName(entry.id));
            return error;
        }
        error = CompileRule(server_, row, entry.server.pattern);
        if (error != 0) {
            std::fprintf(stderr, "Could not compile server regex '%s' for protocol %s\n",
                         entry.server.pattern, GetProtocolName(entry.id));
            return error;
        }
    }
    return 0;
}

int CompiledPatterns::CompileRule(Side& side, std::size_t row, const char* pattern) {
    if (pattern == nullptr) return 0;
    const int error = RegexpCompile(side.regexps[row], pattern);
    largestStateCount_ = std::max(largestStateCount_, side.regexps[row].stateCount);
    return error;
}

void CompiledPatterns::BuildAutomata() {
    AutomatonSet::Patterns client, server;
    for (std::size_t row = 0; row < rowCount_; ++row) {
        if (client_.regexps[row].states != nullptr) {
            client[row] = {&client_.regexps[row], table_[row].client.flags};
        }
        if (server_.regexps[row].states != nullptr) {
            server[row] = {&server_.regexps[row], table_[row].server.flags};
        }
    }
    client_.automata.Build(client);
    server_.automata.Build(server);
}

int CompiledPatterns::TestSide(const Regexp& regexp, std::int32_t length, const void* data, unsigned flags,
                               RegMatcher& matcher) const {
    if (length <= 0) return kUndecided;  // nothing to judge yet
    if (regexp.states == nullptr) return kNoMatch;
    if (matcher.current.capacity == 0) {
        const int error = RegMatcherInit(matcher, largestStateCount_);
        if (error != 0) {
            std::fputs("Could not alloc regmatcher for connection.", stderr);
            return error;
        }
    }
    const DataChunk chunk{length, data};
    return RegexpMatch(matcher, regexp, &chunk, 1, flags);
}

int CompiledPatterns::TestRow(std::size_t row, const ProtocolSample& sample, RegMatcher& matcher) const {
    const ProtocolEntry& entry = table_[row];
    int verdict =
        TestSide(client_.regexps[row], sample.clientLength, sample.clientData, entry.client.flags, matcher);
    if (verdict == kUndecided) {
        verdict = TestSide(server_.regexps[row], sample.serverLength, sample.serverData, entry.server.flags,
                           matcher);
    }
    return verdict < 0 ? verdict : JudgeBeyondPatterns(entry, sample, verdict);
}

AutomatonSet::Verdicts CompiledPatterns::RunAutomata(const AutomatonSet& automata, RowMask rows,
                                                     const void* data, std::int32_t length,
                                                     const ProtocolSample& sample) const {
    rows &= automata.Rows();
    for (RowMask left = rows & portRows_; left != 0; left &= left - 1) {
        if (!PortsFit(table_[__builtin_ctz(left)], sample)) rows &= ~(left & -left);
    }
    return automata.Run(rows, static_cast<const unsigned char*>(data), static_cast<std::size_t>(length));
}

/// The first of the rows judged by automata that matches, or none. The server's bytes count for a row that
/// the client's leave undecided.
CompiledPatterns::RowMask CompiledPatterns::FirstByAutomata(const ProtocolSample& sample) const {
    AutomatonSet::Verdicts byClient{0, automatonRows_};
    if (sample.clientLength > 0) {
        byClient =
            RunAutomata(client_.automata, automatonRows_, sample.clientData, sample.clientLength, sample);
    }
    if (sample.serverLength <= 0) return byClient.matched;
    const RowMask byServer =
        RunAutomata(server_.automata, byClient.undecided, sample.serverData, sample.serverLength, sample)
            .matched;
    return byServer != 0 ? byServer : byClient.matched;
}

/// Tests these rows one by one and sets `matched` to the first that matches. False when memory ran out.
bool CompiledPatterns::TestOthers(RowMask rows, const ProtocolSample& sample, RowMask& matched) const {
    RegMatcher matcher;
    for (; rows != 0; rows &= rows - 1) {
        const auto row = static_cast<std::size_t>(__builtin_ctz(rows));
        if (!PortsFit(table_[row], sample)) continue;
        const int verdict = TestRow(row, sample, matcher);
        if (verdict < 0) return false;
        if (verdict != kMatch) continue;
        matched = rows;
        return true;
    }
    return true;
}

bool CompiledPatterns::Classify(ProtocolSample& sample) const {
    RowMask matched = FirstByAutomata(sample);
    const RowMask others = otherRows_ & (matched - 1);
    if (others != 0 && !TestOthers(others, sample, matched)) return false;
    if (matched == 0) return false;
    sample.protocol = table_[__builtin_ctz(matched)].id;
    return true;
}
