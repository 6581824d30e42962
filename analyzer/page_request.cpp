// See page_request.h.
#include "analyzer/page_request.h"

#include <algorithm>
#include <cctype>

namespace {

/// A longer head is answered as it is.
constexpr std::size_t kMostHeadBytes = 16u * 1024;
/// A longer body is not waited for.
constexpr std::uint64_t kMostBodyBytes = 1024u * 1024;

constexpr char kEndOfHead[] = "\r\n\r\n";

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

/// What stands behind "name:" in a head in lower case; empty when it isn't there.
std::string FieldOf(const std::string& head, const std::string& name) {
    const std::size_t line = head.find("\r\n" + name + ":");
    if (line == std::string::npos) return std::string();
    const std::size_t begin = head.find_first_not_of(" \t", line + 2 + name.size() + 1);
    return head.substr(begin, head.find("\r\n", begin) - begin);
}

/// 0 for what is no number, and for one that isn't worth waiting for.
std::uint64_t BodyLength(const std::string& head) {
    const std::string text = FieldOf(head, "content-length");
    std::uint64_t length = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return 0;
        length = length * 10 + static_cast<std::uint64_t>(c - '0');
        if (length > kMostBodyBytes) return 0;
    }
    return length;
}

const char* Reason(std::uint32_t status) {
    switch (status) {
        case 200:
            return "OK";
        case 403:
            return "Forbidden";
        case 404:
            return "Not Found";
        case 451:
            return "Unavailable For Legal Reasons";
        case 503:
            return "Service Unavailable";
        default:
            return "Answer";
    }
}

}  // namespace

PageRequest::State PageRequest::Read(const unsigned char* bytes, std::size_t count) {
    if (state_ != State::kReading) return state_;
    if (!headEnded_) {
        const std::size_t before = head_.size();
        head_.append(reinterpret_cast<const char*>(bytes), std::min(count, kMostHeadBytes - before));
        const auto first = static_cast<unsigned char>(head_.empty() ? 'G' : head_[0]);
        if (first < 'A' || first > 'Z') return state_ = State::kNoRequest;
        const std::size_t searched = before < sizeof(kEndOfHead) ? 0 : before - sizeof(kEndOfHead);
        const std::size_t end = head_.find(kEndOfHead, searched);
        if (end == std::string::npos) {
            if (head_.size() == kMostHeadBytes) state_ = State::kWhole;
            return state_;
        }
        ReadHead(end + 2);
        count -= end + sizeof(kEndOfHead) - 1 - before;
    }
    bodyLeft_ -= std::min<std::uint64_t>(count, bodyLeft_);
    if (bodyLeft_ == 0) state_ = State::kWhole;
    return state_;
}

void PageRequest::ReadHead(std::size_t end) {
    headEnded_ = true;
    head_.resize(end);
    const std::string head = Lower(head_);
    // It waits for a word before it sends the body, and takes the answer for one.
    if (FieldOf(head, "expect").empty()) bodyLeft_ = BodyLength(head);
}

std::string PageAnswer(const Page& page, bool withBody) {
    const std::string head = "HTTP/1.1 " + std::to_string(page.status) + " " + Reason(page.status) +
                             "\r\nContent-Type: " + page.type +
                             "\r\nContent-Length: " + std::to_string(page.body.size()) +
                             "\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n";
    return withBody ? head + page.body : head;
}
