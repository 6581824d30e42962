// Reads from a rule what is to become of the bytes of a split connection.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "analyzer/inspection_plan.h"
#include "analyzer/table_reader.h"

class PlanReader : private TableReader {
  public:
    using TableReader::TableReader;

    /// The plan of a rule, and in `flags` what the layer has to be told for it, beside those that are set
    /// already. Null when the rule says nothing of it.
    std::shared_ptr<const InspectionPlan> Read(const toml::table& rule, std::uint32_t& flags);

  private:
    ContentRule ReadContent(const toml::table& table);
    Page ReadPage(const toml::table& table);
    std::string ReadBody(const toml::table& table);
};

/// The key of a rule's plan that comes first, if it has one: for errors about all of them.
const toml::node* FirstOfPlan(const toml::table& rule);
