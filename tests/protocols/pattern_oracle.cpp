// Generator and position-set matcher; see the header.
#include "tests/protocols/pattern_oracle.h"

#include <cctype>
#include <cstdio>
#include <iterator>

namespace {

constexpr const char kAlphabet[] = "aAbBzZ0-. \n\r]";  // and its terminator, the zero byte

unsigned char AnyByte(SeededRandom& random) {
    if (random.Below(8) == 0) return static_cast<unsigned char>(random.Below(256));
    return static_cast<unsigned char>(kAlphabet[random.Below(sizeof(kAlphabet))]);
}

/// One of the ways to write a byte so that it stands for itself.
std::string Written(SeededRandom& random, unsigned char byte) {
    static const struct {
        unsigned char byte;
        const char* text;
    } kEscapes[] = {{0, "\\0"},  {7, "\\a"},  {8, "\\b"},  {9, "\\t"},  {10, "\\n"},
                    {11, "\\v"}, {12, "\\f"}, {13, "\\r"}, {92, "\\\\"}};
    const bool alone = std::isalnum(byte) != 0 || byte >= 128 || byte == ' ';
    if (alone && random.Below(8) != 0) return std::string(1, static_cast<char>(byte));
    for (const auto& escape : kEscapes) {
        if (escape.byte == byte && random.Below(2) == 0) return escape.text;
    }
    if (std::ispunct(byte) != 0) return std::string("\\") + static_cast<char>(byte);
    char hex[5];
    std::snprintf(hex, sizeof(hex), random.Below(2) == 0 ? "\\x%02x" : "\\X%02X", byte);
    return hex;
}

class Generator {
  public:
    explicit Generator(SeededRandom& random) : random_(random) {}

    RandomPattern Make() {
        RandomPattern pattern;
        if (random_.Below(4) != 0) {
            pattern.root = Choice(3, pattern.text);
            return pattern;
        }
        // One that searches: anything, then the rest.
        PatternNode any{PatternNode::Kind::kByte, {}, {}};
        any.accepted.set();
        pattern.root.kind = PatternNode::Kind::kSequence;
        pattern.root.parts.push_back({PatternNode::Kind::kRepeat, {}, {std::move(any)}, '*'});
        pattern.text = ".*(";
        pattern.root.parts.push_back(Choice(3, pattern.text));
        pattern.text += ')';
        return pattern;
    }

  private:
    PatternNode Choice(unsigned depth, std::string& text) {
        PatternNode node{PatternNode::Kind::kChoice, {}, {}};
        const unsigned count = random_.Below(3) == 0 ? 2 + random_.Below(2) : 1;
        for (unsigned i = 0; i < count; ++i) {
            if (i != 0) text += '|';
            PatternNode sequence{PatternNode::Kind::kSequence, {}, {}};
            for (unsigned pieces = random_.Below(5); pieces > 0; --pieces) {
                sequence.parts.push_back(Piece(depth, text));
            }
            node.parts.push_back(std::move(sequence));
        }
        return node;
    }

    PatternNode Piece(unsigned depth, std::string& text) {
        PatternNode atom = Atom(depth, text);
        if (random_.Below(5) < 3) return atom;
        const char quantifier = "*+?"[random_.Below(3)];
        text += quantifier;
        PatternNode node{PatternNode::Kind::kRepeat, {}, {}, quantifier};
        node.parts.push_back(std::move(atom));
        return node;
    }

    PatternNode Atom(unsigned depth, std::string& text) {
        if (depth > 0 && random_.Below(4) == 0) {
            text += '(';
            PatternNode group = Choice(depth - 1, text);
            text += ')';
            return group;
        }
        PatternNode leaf{PatternNode::Kind::kByte, {}, {}};
        const unsigned form = random_.Below(10);
        if (form == 0) {
            text += '.';
            leaf.accepted.set();
        } else if (form < 3 && classes_ < 16) {
            leaf.accepted = Class(text);
        } else {
            const unsigned char byte = AnyByte(random_);
            text += byte != 0 && std::string("$^{}-").find(static_cast<char>(byte)) != std::string::npos
                        ? std::string(1, static_cast<char>(byte))
                        : Written(random_, byte);
            leaf.accepted.set(byte);
        }
        return leaf;
    }

    std::bitset<256> Class(std::string& text) {
        ++classes_;
        std::bitset<256> members;
        const bool negated = random_.Below(3) == 0;
        text += negated ? "[^" : "[";
        for (unsigned count = random_.Below(4); count > 0; --count)
            Member(members, text);
        text += ']';
        return negated ? ~members : members;
    }

    void Member(std::bitset<256>& members, std::string& text) {
        const unsigned form = random_.Below(6);
        if (form == 0) return Named(members, text);
        unsigned char first = AnyByte(random_);
        unsigned char last = AnyByte(random_);
        if (last < first) std::swap(first, last);
        text += Written(random_, first);
        members.set(first);
        if (form == 1) {  // a dash before a named class is dropped
            text += '-';
            Named(members, text);
        } else if (form < 4) {
            text += '-' + Written(random_, last);
            for (unsigned byte = first; byte <= last; ++byte)
                members.set(byte);
        }
    }

    void Named(std::bitset<256>& members, std::string& text) {
        static const struct {
            const char* text;
            int (*has)(int);
        } kNames[] = {{"[:alnum:]", std::isalnum}, {"[:cntrl:]", std::iscntrl}, {"[:digit:]", std::isdigit},
                      {"[:lower:]", std::islower}, {"[:punct:]", std::ispunct}, {"[:space:]", std::isspace}};
        const auto& name = kNames[random_.Below(std::size(kNames))];
        text += name.text;
        for (int byte = 0; byte < 256; ++byte) {
            if (name.has(byte) != 0) members.set(byte);
        }
    }

    SeededRandom& random_;
    unsigned classes_ = 0;
};

/// Appends a member of the node's language when it finds one; a class that accepts nothing is passed over.
void AppendMember(SeededRandom& random, const PatternNode& node, std::string& data) {
    switch (node.kind) {
        case PatternNode::Kind::kByte:
            for (int tries = 0; tries < 40; ++tries) {
                const unsigned char byte = AnyByte(random);
                const unsigned char start = tries < 20 ? byte : static_cast<unsigned char>(random.Below(256));
                if (!node.accepted[start]) continue;
                data += static_cast<char>(start);
                return;
            }
            for (unsigned byte = 0; byte < 256; ++byte) {
                if (!node.accepted[byte]) continue;
                data += static_cast<char>(byte);
                return;
            }
            return;
        case PatternNode::Kind::kSequence:
            for (const PatternNode& part : node.parts)
                AppendMember(random, part, data);
            return;
        case PatternNode::Kind::kChoice:
            return AppendMember(random, node.parts[random.Below(unsigned(node.parts.size()))], data);
        case PatternNode::Kind::kRepeat:
            unsigned count = node.quantifier == '+' ? 1 : 0;
            count += random.Below(node.quantifier == '?' ? 2 : 3);
            for (; count > 0; --count)
                AppendMember(random, node.parts[0], data);
    }
}

/// Runs over the tree; bit i of a set is the position before byte i.
class Oracle {
  public:
    Oracle(const std::string& data, bool ignoreCase) : data_(data), ignoreCase_(ignoreCase) {}

    std::uint64_t Ends(const PatternNode& node, std::uint64_t starts) {
        switch (node.kind) {
            case PatternNode::Kind::kByte:
                return Take(node, starts);
            case PatternNode::Kind::kSequence:
                for (const PatternNode& part : node.parts)
                    starts = Ends(part, starts);
                return starts;
            case PatternNode::Kind::kChoice: {
                std::uint64_t ends = 0;
                for (const PatternNode& part : node.parts)
                    ends |= Ends(part, starts);
                return ends;
            }
            case PatternNode::Kind::kRepeat:
                return Repeat(node, starts);
        }
        return 0;
    }

    /// Positions that some path through the pattern reaches by consuming the byte before them.
    std::uint64_t Consumed() const { return consumed_; }

  private:
    std::uint64_t Take(const PatternNode& node, std::uint64_t starts) {
        std::uint64_t ends = 0;
        for (std::size_t i = 0; i < data_.size(); ++i) {
            const auto byte = static_cast<unsigned char>(data_[i]);
            const bool letter = ignoreCase_ && std::isalpha(byte) != 0;
            const bool takes = node.accepted[byte] || (letter && node.accepted[byte ^ 0x20]);
            if ((starts >> i & 1) != 0 && takes) ends |= std::uint64_t{1} << (i + 1);
        }
        consumed_ |= ends;
        return ends;
    }

    std::uint64_t Repeat(const PatternNode& node, std::uint64_t starts) {
        std::uint64_t ends = Ends(node.parts[0], starts);
        if (node.quantifier != '?') {
            for (std::uint64_t fresh = ends; fresh != 0;) {
                fresh = Ends(node.parts[0], fresh) & ~ends;
                ends |= fresh;
            }
        }
        return node.quantifier == '+' ? ends : ends | starts;
    }

    const std::string& data_;
    const bool ignoreCase_;
    std::uint64_t consumed_ = 0;
};

}  // namespace

RandomPattern MakePattern(SeededRandom& random) {
    return Generator(random).Make();
}

std::string MakeData(SeededRandom& random, const PatternNode& root, bool ignoreCase) {
    std::string data;
    if (random.Below(8) != 0) AppendMember(random, root, data);
    for (char& c : data) {
        if (ignoreCase && std::isalpha(static_cast<unsigned char>(c)) != 0 && random.Below(2) == 0) c ^= 0x20;
    }
    switch (random.Below(4)) {
        case 0:
            data.resize(random.Below(unsigned(data.size()) + 1));
            break;
        case 1:
            if (!data.empty()) data[random.Below(unsigned(data.size()))] = static_cast<char>(AnyByte(random));
            break;
        case 2:
            for (unsigned more = random.Below(8); more > 0; --more)
                data += static_cast<char>(AnyByte(random));
    }
    if (data.size() > kMaxOracleData) data.resize(kMaxOracleData);
    return data;
}

int OracleMatch(const PatternNode& root, const std::string& data, bool firstMatch, bool ignoreCase) {
    Oracle oracle(data, ignoreCase);
    const std::uint64_t accepted = oracle.Ends(root, 1);
    for (std::size_t position = 1; position <= data.size(); ++position) {
        if (firstMatch && (accepted >> position & 1) != 0) return 2;
        if ((oracle.Consumed() >> position & 1) == 0) return 0;
    }
    return (accepted >> data.size() & 1) != 0 ? 2 : 1;
}
