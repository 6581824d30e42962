// The compiled patterns of a protocol table, and the search for the row that a sample matches.
//
// The patterns of each side run together as an AutomatonSet; one that cannot be made deterministic runs alone
// as a Regexp with a matcher of the call.
//
// Threads: Compile is for one thread, before any other uses the object; all else only reads it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "protocols/automaton_set.h"
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

    /// As TestProtocolRow, by the row's own patterns; `matcher` is prepared when it is needed first. Negative
    /// when that fails.
    int TestRow(std::size_t row, const ProtocolSample& sample, RegMatcher& matcher) const;

  private:
    static constexpr std::size_t kMaxRows = AutomatonSet::kMaxRows;
    using RowMask = AutomatonSet::RowMask;

    /// The patterns of one side, by row; both forms of each that has both.
    struct Side {
        std::array<Regexp, kMaxRows> regexps;
        AutomatonSet automata;
    };

    int CompileRules();
    int CompileRule(Side& side, std::size_t row, const char* pattern);
    void BuildAutomata();
    int TestSide(const Regexp& regexp, std::int32_t length, const void* data, unsigned flags,
                 RegMatcher& matcher) const;
    AutomatonSet::Verdicts RunAutomata(const AutomatonSet& automata, RowMask rows, const void* data,
                                       std::int32_t length, const ProtocolSample& sample) const;
    RowMask FirstByAutomata(const ProtocolSample& sample) const;
    bool TestOthers(RowMask rows, const ProtocolSample& sample, RowMask& matched) const;

    const ProtocolEntry* table_ = nullptr;
    std::size_t rowCount_ = 0;
    Side client_;
    Side server_;
    RowMask automatonRows_ = 0;  // judged by automata and ports alone
    RowMask portRows_ = 0;       // of those: the ones with a port
    RowMask otherRows_ = 0;
    int largestStateCount_ = 0;
};
