// One line per request: what was asked, by whom, and what was answered, and one for each split connection
// that has ended, for people or as JSON. Texts come from the wire: control characters and broken UTF-8 never
// reach the output as they are. One thread.
#pragma once

#include <cstddef>
#include <string>

#include "analyzer/inspection.h"
#include "analyzer/line_writer.h"
#include "analyzer/request.h"
#include "analyzer/rules.h"

enum class LogFormat { kReadable, kJson };

class RequestLog {
  public:
    /// `out` must outlive the log.
    RequestLog(LineWriter* out, LogFormat format) : out_(out), format_(format) {}

    void Write(const Request& request, const Rule& rule);

    /// What became of a split connection, at its end. `first` is the first that was told of it, `rule` the
    /// name of the rule that let it be.
    void WriteInspected(const Request& first, const std::string& rule, const InspectionCounts& counts);

  private:
    LineWriter* out_;
    LogFormat format_;
};

/// The line, without its end, for a request made at `time` ("2024-01-31T10:20:30.123Z").
std::string ReadableLine(const std::string& time, const Request& request, const Rule& rule);
std::string JsonLine(const std::string& time, const Request& request, const Rule& rule);

std::string ReadableInspectedLine(const std::string& time, const Request& first, const std::string& rule,
                                  const InspectionCounts& counts);
std::string JsonInspectedLine(const std::string& time, const Request& first, const std::string& rule,
                              const InspectionCounts& counts);

/// The line, without its end, that stands for so many which were dropped. Any thread.
std::string DroppedLine(LogFormat format, std::size_t count);
