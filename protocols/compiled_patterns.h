// The compiled patterns of a protocol table, and the search for the row that a sample matches.
//
// Most rows are out after one byte, so the search starts from a table of the rows that each first byte
// leaves. Each pattern runs as a ByteAutomaton; one that cannot be made deterministic runs as a Regexp with a
// matcher of the call.
//
// Threads: Compile is for one thread, before any other uses the object; all else only reads it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "protocols/byte_automaton.h"
#include "protocols/protocol_table.h"
#include "protocols/regexp.h"

/// What becomes of the patterns' verdict on a row: its validator and its ports have the last word.
int JudgeBeyondPatterns(const ProtocolEntry& entry, const ProtocolSample& sample, int verdict);

class CompiledPatterns {
  public:
    /// Simulated patterns give the same results as deterministic ones; only a test asks for them.
    enum class Engine { kDeterministic, kSimulated };

    /// Compiles the rows of a table that ends with the id kProtocolTableEnd and outlives this object. Returns
    /// 0, or the first error after a line on the standard error stream; the rows after it stay uncompiled.
    int Compile(const ProtocolEntry* table, Engine engine = Engine::kDeterministic);

    /// As ClassifyConnection.
    bool Classify(ProtocolSample& sample) const;

    /// As TestProtocolRow; `matcher` is prepared when it is needed first. Negative when that fails.
    int TestRow(std::size_t row, const ProtocolSample& sample, RegMatcher& matcher) const;

  private:
    static constexpr std::size_t kMaxRows = 32;  // one bit each
    using RowMask = std::uint32_t;

    struct Rule {
        Regexp regexp;
        ByteAutomaton automaton;
    };

    /// The rules of one side, by row, and the rows that data beginning with each byte can match.
    struct Side {
        std::array<Rule, kMaxRows> rules;
        std::array<RowMask, 256> rowsByFirstByte{};
    };

    int CompileRule(Side& side, std::size_t row, const char* pattern, unsigned flags);
    int TestSide(const Rule& rule, std::int32_t length, const void* data, unsigned flags,
                 RegMatcher& matcher) const;
    RowMask CandidateRows(const ProtocolSample& sample) const;

    const ProtocolEntry* table_ = nullptr;
    Engine engine_ = Engine::kDeterministic;
    Side client_;
    Side server_;
    RowMask validatedRows_ = 0;
    RowMask tailRows_ = 0;  // rows that match by the client's bytes alone, in patterns with a tail
    int largestStateCount_ = 0;
};
