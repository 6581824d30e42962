// What went over the connections that the analyzer was told of, added up by process, destination and
// protocol, for the table at its end. One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "analyzer/request.h"
#include "analyzer/rules.h"

/// One connection to the analyzer, that is one socket of an application.
class ConnectionTally {
  public:
    /// A question and the rule that answered it.
    void Add(const Request& request, const Rule& rule);

    bool IsEmpty() const { return questions_ == 0; }

  private:
    friend class TrafficSummary;

    /// Bytes of one direction: counts that start anew with each answer are added, others go on.
    struct Bytes {
        std::uint64_t counted = 0;
        std::uint64_t goingOn = 0;

        void Add(std::uint64_t count, bool startsAnew);
        std::uint64_t Total() const { return counted + goingOn; }
    };

    Request last_;
    Endpoint destination_;
    std::uint32_t protocol_ = 0;
    std::size_t questions_ = 0;
    std::size_t refused_ = 0;
    Bytes sent_;
    Bytes received_;
};

class TrafficSummary {
  public:
    void Add(const ConnectionTally& connection);

    /// A table with a heading, or a JSON object for each row; nothing without a connection.
    std::vector<std::string> Table() const;
    std::vector<std::string> JsonLines() const;

  private:
    struct Row {
        std::size_t connections = 0;
        std::uint64_t sent = 0;
        std::uint64_t received = 0;
        std::size_t refused = 0;
    };
    using Key = std::tuple<std::uint32_t, std::string, std::string>;

    std::map<Key, Row> rows_;
};
