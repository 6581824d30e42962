// The engines; see the header. Each keeps its compiled patterns for the life of the program.
#include "bench/protocols/reference_engines.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <hs/hs.h>
#include <pcre2.h>
#include <re2/re2.h>
#include <re2/set.h>

#include <array>
#include <climits>
#include <memory>
#include <stdexcept>

#include "protocols/regexp.h"

namespace {

struct SidePattern {
    const ProtocolEntry* row;
    std::string text;  // '$' has a meaning for these engines
    bool anyCase;
};

using Sides = std::array<std::vector<SidePattern>, 2>;  // client, server

Sides Patterns() {
    Sides sides;
    for (const ProtocolEntry* row = ProtocolTable; row->id != kProtocolTableEnd; ++row) {
        const ProtocolRule* rules[] = {&row->client, &row->server};
        for (int side = 0; side < 2; ++side) {
            if (rules[side]->pattern == nullptr) continue;
            std::string text;
            for (const char* c = rules[side]->pattern; *c != '\0'; ++c) {
                if (*c == '$') text += '\\';
                text += *c;
            }
            sides[side].push_back({row, text, (rules[side]->flags & kRegIcase) != 0});
        }
    }
    return sides;
}

bool PortFits(const ProtocolEntry& row, const ProtocolSample& sample) {
    return row.remotePort == -1 || row.remotePort == sample.remotePort;
}

std::uint32_t ByValidators(const ProtocolSample& sample) {
    for (const ProtocolEntry* row = ProtocolTable; row->id != kProtocolTableEnd; ++row) {
        if (row->validator == nullptr || !PortFits(*row, sample)) continue;
        if (row->validator(sample, kNoMatch) == kMatch) return row->id;
    }
    return kProtocolNone;
}

struct Bytes {
    int side;
    const char* data;
    std::size_t size;
};

Bytes BytesOf(const ProtocolSample& sample) {
    if (sample.serverLength > 0) {
        return {1, static_cast<const char*>(sample.serverData),
                static_cast<std::size_t>(sample.serverLength)};
    }
    return {0, static_cast<const char*>(sample.clientData), static_cast<std::size_t>(sample.clientLength)};
}

ReferenceEngine MakeRe2Set() {
    struct State {
        Sides patterns = Patterns();
        std::unique_ptr<re2::RE2::Set> sets[2];
    };
    auto state = std::make_shared<State>();
    for (int side = 0; side < 2; ++side) {
        re2::RE2::Options options;
        options.set_encoding(re2::RE2::Options::EncodingLatin1);
        state->sets[side] = std::make_unique<re2::RE2::Set>(options, re2::RE2::ANCHOR_START);
        for (const SidePattern& pattern : state->patterns[side]) {
            const std::string text = (pattern.anyCase ? "(?is)" : "(?s)") + pattern.text;
            if (state->sets[side]->Add(text, nullptr) < 0) throw std::runtime_error(text);
        }
        if (!state->sets[side]->Compile()) throw std::runtime_error("RE2::Set");
    }
    return {"RE2Set", [state](const ProtocolSample& sample) {
                static std::vector<int> hits;
                const Bytes bytes = BytesOf(sample);
                const auto& patterns = state->patterns[bytes.side];
                int best = INT_MAX;
                if (state->sets[bytes.side]->Match(re2::StringPiece(bytes.data, bytes.size), &hits)) {
                    for (const int hit : hits) {
                        if (hit < best && PortFits(*patterns[hit].row, sample)) best = hit;
                    }
                }
                return best != INT_MAX ? patterns[best].row->id : ByValidators(sample);
            }};
}

ReferenceEngine MakeHyperscan() {
    struct State {
        Sides patterns = Patterns();
        hs_database_t* databases[2] = {};
        hs_scratch_t* scratch = nullptr;
    };
    struct Scan {
        const std::vector<SidePattern>* patterns;
        const ProtocolSample* sample;
        unsigned best;
    };
    auto state = std::make_shared<State>();
    for (int side = 0; side < 2; ++side) {
        std::vector<std::string> texts;
        std::vector<const char*> pointers;
        std::vector<unsigned> flags, ids;
        for (const SidePattern& pattern : state->patterns[side]) {
            texts.push_back("^(?:" + pattern.text + ")");
            flags.push_back(HS_FLAG_DOTALL | HS_FLAG_SINGLEMATCH | (pattern.anyCase ? HS_FLAG_CASELESS : 0u));
            ids.push_back(static_cast<unsigned>(ids.size()));
        }
        for (const std::string& text : texts)
            pointers.push_back(text.c_str());
        hs_compile_error_t* error = nullptr;
        if (hs_compile_multi(pointers.data(), flags.data(), ids.data(), static_cast<unsigned>(ids.size()),
                             HS_MODE_BLOCK, nullptr, &state->databases[side], &error) != HS_SUCCESS) {
            throw std::runtime_error(error->message);
        }
        hs_alloc_scratch(state->databases[side], &state->scratch);
    }
    const auto onMatch = [](unsigned id, unsigned long long, unsigned long long, unsigned, void* context) {
        Scan& scan = *static_cast<Scan*>(context);
        if (id < scan.best && PortFits(*(*scan.patterns)[id].row, *scan.sample)) scan.best = id;
        return scan.best == 0 ? 1 : 0;  // nothing beats the first row
    };
    return {"Hyperscan", [state, onMatch](const ProtocolSample& sample) {
                const Bytes bytes = BytesOf(sample);
                Scan scan{&state->patterns[bytes.side], &sample, UINT_MAX};
                hs_scan(state->databases[bytes.side], bytes.data, static_cast<unsigned>(bytes.size), 0,
                        state->scratch, onMatch, &scan);
                return scan.best != UINT_MAX ? (*scan.patterns)[scan.best].row->id : ByValidators(sample);
            }};
}

ReferenceEngine MakePcre2() {
    struct State {
        Sides patterns = Patterns();
        std::vector<pcre2_code*> codes[2];
        pcre2_match_data* match = pcre2_match_data_create(16, nullptr);
    };
    auto state = std::make_shared<State>();
    for (int side = 0; side < 2; ++side) {
        for (const SidePattern& pattern : state->patterns[side]) {
            int error = 0;
            PCRE2_SIZE where = 0;
            pcre2_code* code =
                pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.text.data()), pattern.text.size(),
                              PCRE2_ANCHORED | PCRE2_DOTALL | (pattern.anyCase ? PCRE2_CASELESS : 0u), &error,
                              &where, nullptr);
            if (code == nullptr || pcre2_jit_compile(code, PCRE2_JIT_COMPLETE) != 0) {
                throw std::runtime_error(pattern.text);
            }
            state->codes[side].push_back(code);
        }
    }
    return {"PCRE2Jit", [state](const ProtocolSample& sample) {
                const Bytes bytes = BytesOf(sample);
                const auto& patterns = state->patterns[bytes.side];
                for (std::size_t i = 0; i < patterns.size(); ++i) {
                    const int matched =
                        pcre2_jit_match(state->codes[bytes.side][i], reinterpret_cast<PCRE2_SPTR>(bytes.data),
                                        bytes.size, 0, 0, state->match, nullptr);
                    if (matched >= 0 && PortFits(*patterns[i].row, sample)) return patterns[i].row->id;
                }
                return ByValidators(sample);
            }};
}

}  // namespace

std::vector<ReferenceEngine> MakeReferenceEngines() {
    return {MakeRe2Set(), MakeHyperscan(), MakePcre2()};
}
