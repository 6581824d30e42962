// See answer_reader.h.
#include "apps/client/answer_reader.h"

#include <algorithm>
#include <cstdlib>

namespace {

constexpr std::size_t kMostHeadBytes = 65536;
constexpr std::size_t kMostLineBytes = 256;

}  // namespace

void AnswerReader::Take(const char* bytes, std::size_t count) {
    bytes_ += count;
    if (headEnded_) return TakeBody(bytes, count);
    head_.append(bytes, count);
    const std::string prefix = "HTTP/";
    const bool isHttp = head_.compare(0, prefix.size(), prefix, 0, head_.size()) == 0;
    const std::size_t end = head_.find("\r\n\r\n");
    if (isHttp && end == std::string::npos && head_.size() < kMostHeadBytes) return;
    headEnded_ = true;
    if (!isHttp || end == std::string::npos) return TakeBody(head_.data(), head_.size());
    status_ = std::atoi(head_.c_str() + std::min(head_.find(' '), end));
    TakeBody(head_.data() + end + 4, head_.size() - end - 4);
}

void AnswerReader::TakeBody(const char* bytes, std::size_t count) {
    checksum_.Add(bytes, count);
    bodyBegin_.append(bytes, std::min(count, kMostLineBytes - bodyBegin_.size()));
}

void AnswerReader::Finish(ExchangeResult* result) {
    if (!headEnded_) TakeBody(head_.data(), head_.size());
    headEnded_ = true;
    result->bytes = bytes_;
    result->status = status_;
    result->checksum = checksum_.Text();
    result->firstBodyLine = bodyBegin_.substr(0, bodyBegin_.find_first_of("\r\n"));
}
