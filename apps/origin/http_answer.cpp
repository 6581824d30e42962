// See http_answer.h.
#include "apps/origin/http_answer.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::uint64_t kPieceBytes = 65536;
constexpr char kBytesRequest[] = "GET /bytes/";

std::uint64_t BytesAskedFor(const std::string& requestLine) {
    const std::size_t length = sizeof(kBytesRequest) - 1;
    if (requestLine.compare(0, length, kBytesRequest) != 0) return 0;
    return std::strtoull(requestLine.c_str() + length, nullptr, 10);
}

}  // namespace

HttpAnswer::HttpAnswer(const std::string& name, const std::string& request)
    : requestLine_(request.substr(0, request.find_first_of("\r\n"))),
      bytesLeft_(BytesAskedFor(requestLine_)),
      random_(bytesLeft_ + 1) {
    const std::string body = name + "\n" + (bytesLeft_ != 0 ? "" : requestLine_ + "\n");
    begin_ = "HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " +
             std::to_string(body.size() + bytesLeft_) + "\r\nConnection: close\r\n\r\n" + TakeBody(body);
}

std::string HttpAnswer::NextPiece() {
    if (begin_.empty()) return bytesLeft_ == 0 ? std::string() : TakeBody(MakeBytes());
    std::string begin;
    begin.swap(begin_);
    return begin;
}

std::string HttpAnswer::TakeBody(std::string body) {
    bodyBytes_ += body.size();
    checksum_.Add(body.data(), body.size());
    return body;
}

/// Bytes of which no two pieces are alike.
std::string HttpAnswer::MakeBytes() {
    std::string piece(static_cast<std::size_t>(std::min(bytesLeft_, kPieceBytes)), '\0');
    for (std::size_t at = 0; at < piece.size(); at += sizeof(random_)) {
        random_ ^= random_ << 13;
        random_ ^= random_ >> 7;
        random_ ^= random_ << 17;
        std::memcpy(&piece[at], &random_, std::min(sizeof(random_), piece.size() - at));
    }
    bytesLeft_ -= piece.size();
    return piece;
}
