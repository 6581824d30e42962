// Compilation of a protocol table and the search through its rows; see the header.
#include "protocols/compiled_patterns.h"

#include <algorithm>
#include <cstdio>

int JudgeBeyondPatterns(const ProtocolEntry& entry, const ProtocolSample& sample, int verdict) {
    if (entry.validator != nullptr) verdict = entry.validator(sample, verdict);
    if (verdict != kMatch) return verdict;
    if (entry.localPort != -1 && entry.localPort != sample.localPort) return kNoMatch;
    if (entry.remotePort != -1 && entry.remotePort != sample.remotePort) return kNoMatch;
    return kMatch;
}

int CompiledPatterns::Compile(const ProtocolEntry* table, Engine engine) {
    table_ = table;
    engine_ = engine;
    for (std::size_t row = 0; table[row].id != kProtocolTableEnd && row < kMaxRows; ++row) {
        if (table[row].validator != nullptr) validatedRows_ |= RowMask{1} << row;
    }
    for (std::size_t row = 0; table[row].id != kProtocolTableEnd && row < kMaxRows; ++row) {
        const ProtocolEntry& entry = table[row];
        int error = CompileRule(client_, row, entry.client.pattern, entry.client.flags);
        if (error != 0) {
            std::fprintf(stderr, "Could not compile client regex '%s' for protocol %s\n",
                         entry.client.pattern, GetProtocolName(entry.id));
            return error;
        }
        error = CompileRule(server_, row, entry.server.pattern, entry.server.flags);
        if (error != 0) {
            std::fprintf(stderr, "Could not compile server regex '%s' for protocol %s\n",
                         entry.server.pattern, GetProtocolName(entry.id));
            return error;
        }
        const bool byClientAlone = entry.server.pattern == nullptr && entry.validator == nullptr;
        if (byClientAlone && client_.rules[row].automaton.HasTail()) tailRows_ |= RowMask{1} << row;
    }
    return 0;
}

int CompiledPatterns::CompileRule(Side& side, std::size_t row, const char* pattern, unsigned flags) {
    if (pattern == nullptr) return 0;
    Rule& rule = side.rules[row];
    const int error = RegexpCompile(rule.regexp, pattern);
    if (error != 0) return error;
    largestStateCount_ = std::max(largestStateCount_, rule.regexp.stateCount);

    // The automaton reports a match at its first byte, as every rule of the protocol table wants.
    const bool firstMatch = (flags & kRegFirstMatch) != 0;
    const bool built =
        engine_ == Engine::kDeterministic && firstMatch && rule.automaton.Build(rule.regexp, flags);
    for (unsigned byte = 0; byte < 256; ++byte) {
        if (built && !rule.automaton.CanBeginWith(static_cast<unsigned char>(byte))) continue;
        side.rowsByFirstByte[byte] |= RowMask{1} << row;
    }
    return 0;
}

int CompiledPatterns::TestSide(const Rule& rule, std::int32_t length, const void* data, unsigned flags,
                               RegMatcher& matcher) const {
    if (length <= 0) return kUndecided;  // nothing to judge yet
    if (rule.automaton.IsBuilt()) return rule.automaton.Run(static_cast<const unsigned char*>(data), length);
    if (rule.regexp.states == nullptr) return kNoMatch;
    if (matcher.current.capacity == 0) {
        const int error = RegMatcherInit(matcher, largestStateCount_);
        if (error != 0) {
            std::fputs("Could not alloc regmatcher for connection.", stderr);
            return error;
        }
    }
    const DataChunk chunk{length, data};
    return RegexpMatch(matcher, rule.regexp, &chunk, 1, flags);
}

int CompiledPatterns::TestRow(std::size_t row, const ProtocolSample& sample, RegMatcher& matcher) const {
    const ProtocolEntry& entry = table_[row];
    int verdict =
        TestSide(client_.rules[row], sample.clientLength, sample.clientData, entry.client.flags, matcher);
    if (verdict == kUndecided) {
        verdict =
            TestSide(server_.rules[row], sample.serverLength, sample.serverData, entry.server.flags, matcher);
    }
    return verdict < 0 ? verdict : JudgeBeyondPatterns(entry, sample, verdict);
}

/// A row judges by the client's bytes when there are any: after kNoMatch for them the server's are not asked.
CompiledPatterns::RowMask CompiledPatterns::CandidateRows(const ProtocolSample& sample) const {
    const auto firstOf = [](const void* data) { return *static_cast<const unsigned char*>(data); };
    if (sample.clientLength > 0) {
        return client_.rowsByFirstByte[firstOf(sample.clientData)] | validatedRows_;
    }
    if (sample.serverLength > 0) {
        return server_.rowsByFirstByte[firstOf(sample.serverData)] | validatedRows_;
    }
    return validatedRows_;
}

bool CompiledPatterns::Classify(ProtocolSample& sample) const {
    RegMatcher matcher;
    for (RowMask rows = CandidateRows(sample); rows != 0; rows &= rows - 1) {
        const auto row = static_cast<std::size_t>(__builtin_ctz(rows));
        if ((tailRows_ >> row & 1) != 0) {
            const auto* data = static_cast<const unsigned char*>(sample.clientData);
            if (!client_.rules[row].automaton.MayMatch(data, sample.clientLength)) continue;
        }
        const int verdict = TestRow(row, sample, matcher);
        if (verdict < 0) return false;
        if (verdict == kMatch) {
            sample.protocol = table_[row].id;
            return true;
        }
    }
    return false;
}
