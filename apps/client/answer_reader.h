// An HTTP answer as it arrives: its status, the first line of its body, and how much of it there was. Nothing
// is kept beyond that, so an answer may be of any length. One thread.
#pragma once

#include "apps/client/exchange.h"
#include "apps/shared/checksum.h"

#include <cstddef>
#include <string>

class AnswerReader {
  public:
    void Take(const char* bytes, std::size_t count);

    /// Bytes taken so far.
    std::size_t Bytes() const { return bytes_; }

    /// What there is to say of the answer; one of another form is all body.
    void Finish(ExchangeResult* result);

  private:
    void TakeBody(const char* bytes, std::size_t count);

    std::string head_;
    bool headEnded_ = false;
    std::string bodyBegin_;
    Checksum checksum_;
    std::size_t bytes_ = 0;
    int status_ = 0;
};
