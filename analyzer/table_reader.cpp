// See table_reader.h.
#include "analyzer/table_reader.h"

#include <algorithm>

void TableReader::Fail(const toml::source_region& where, const std::string& reason) const {
    throw RuleError(file_ + ":" + std::to_string(where.begin.line) + ":" +
                    std::to_string(where.begin.column) + ": " + reason);
}

const toml::table& TableReader::Table(const toml::node& node, const char* name) const {
    const toml::table* table = node.as_table();
    if (table == nullptr) Fail(node.source(), std::string("\"") + name + "\" is to be a table");
    return *table;
}

std::string TableReader::Text(const toml::node& node) const {
    const toml::value<std::string>* text = node.as_string();
    if (text == nullptr) Fail(node.source(), "expected a text");
    return text->get();
}

bool TableReader::Boolean(const toml::node& node) const {
    const toml::value<bool>* value = node.as_boolean();
    if (value == nullptr) Fail(node.source(), "expected true or false");
    return value->get();
}

std::int64_t TableReader::Number(const toml::node& node, std::int64_t least, std::int64_t most) const {
    const toml::value<std::int64_t>* value = node.as_integer();
    if (value == nullptr || value->get() < least || value->get() > most) {
        Fail(node.source(),
             "expected a number from " + std::to_string(least) + " to " + std::to_string(most));
    }
    return value->get();
}

void TableReader::ForEach(const toml::table& table, const char* key,
                          const std::function<void(const toml::node&)>& read) const {
    const toml::node* node = table.get(key);
    if (node == nullptr) return;
    const toml::array* list = node->as_array();
    if (list == nullptr) return read(*node);
    if (list->empty()) Fail(node->source(), "the list is empty");
    for (const toml::node& element : *list)
        read(element);
}

void TableReader::CheckKeys(const toml::table& table, std::initializer_list<std::string_view> known) const {
    for (const auto& [key, value] : table) {
        if (std::find(known.begin(), known.end(), key.str()) != known.end()) continue;
        Fail(key.source(), "there is no key \"" + std::string(key.str()) + "\" here");
    }
}
