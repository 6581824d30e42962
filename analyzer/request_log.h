// One line per request: what was asked, by whom, and what was answered, for people or as JSON. Texts come
// from the wire: control characters and broken UTF-8 never reach the output as they are. One thread.
#pragma once

#include <cstdio>
#include <string>

#include "analyzer/request.h"
#include "analyzer/rules.h"

enum class LogFormat { kReadable, kJson };

class RequestLog {
  public:
    /// `out` must outlive the log and is not closed.
    RequestLog(std::FILE* out, LogFormat format) : out_(out), format_(format) {}

    /// Lines wait until `Flush`.
    void Write(const Request& request, const Rule& rule);
    void Flush();

  private:
    std::FILE* out_;
    LogFormat format_;
    bool unflushed_ = false;
};

/// The line, without its end, for a request made at `time` ("2024-01-31T10:20:30.123Z").
std::string ReadableLine(const std::string& time, const Request& request, const Rule& rule);
std::string JsonLine(const std::string& time, const Request& request, const Rule& rule);
