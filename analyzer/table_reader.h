// Values of the rule file with their errors: "file:line:column: reason".
#pragma once

#include <toml++/toml.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

#include "analyzer/rules.h"

class TableReader {
  public:
    /// `file` stands in errors and must outlive the reader.
    explicit TableReader(const std::string& file) : file_(file) {}

    /// Throws RuleError, as all the others do where something is wrong.
    [[noreturn]] void Fail(const toml::source_region& where, const std::string& reason) const;

    const std::string& File() const { return file_; }

    const toml::table& Table(const toml::node& node, const char* name) const;
    std::string Text(const toml::node& node) const;
    bool Boolean(const toml::node& node) const;
    std::int64_t Number(const toml::node& node, std::int64_t least, std::int64_t most) const;

    template <typename Value>
    Value OneOf(const toml::node& node, const char* what,
                std::initializer_list<std::pair<const char*, Value>> choices) const {
        const std::string text = Text(node);
        std::string known;
        for (const auto& [name, value] : choices) {
            if (text == name) return value;
            known += (known.empty() ? "" : ", ") + std::string(name);
        }
        Fail(node.source(), "there is no " + std::string(what) + " \"" + text + "\" (" + known + ")");
    }

    /// The value of `key`, or each element when it is a list. An empty list would match everything: refused.
    void ForEach(const toml::table& table, const char* key,
                 const std::function<void(const toml::node&)>& read) const;

    /// Refuses keys that nobody reads.
    void CheckKeys(const toml::table& table, std::initializer_list<std::string_view> known) const;

  private:
    const std::string& file_;
};
