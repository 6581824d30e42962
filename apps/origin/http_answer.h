// The answer to one request, made piece by piece while it is sent, so that it may be of any length. No
// sockets, no threads.
#pragma once

#include "apps/shared/checksum.h"

#include <cstdint>
#include <string>

class HttpAnswer {
  public:
    /// `request` begins with its request line. The body is the server's name and the request line; for
    /// "GET /bytes/N" it is the name and N bytes.
    HttpAnswer(const std::string& name, const std::string& request);

    /// The next bytes to send; empty when all have been given.
    std::string NextPiece();

    const std::string& RequestLine() const { return requestLine_; }
    /// Of the body, so far.
    std::uint64_t BodyBytes() const { return bodyBytes_; }
    std::string BodyChecksum() const { return checksum_.Text(); }

  private:
    std::string TakeBody(std::string body);
    std::string MakeBytes();

    std::string requestLine_;
    std::string begin_;
    std::uint64_t bytesLeft_ = 0;
    std::uint64_t random_;
    std::uint64_t bodyBytes_ = 0;
    Checksum checksum_;
};
