// The request for a page that the analyzer serves itself, understood just as far as an answer needs it: where
// the request ends, since a client may not be cut while it still sends, and whether the answer has a body.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "analyzer/inspection_plan.h"

class PageRequest {
  public:
    enum class State {
        kReading,
        kWhole,      ///< the page can be sent
        kNoRequest,  ///< it is not HTTP
    };

    /// The client's next bytes. What comes after the request is not looked at.
    State Read(const unsigned char* bytes, std::size_t count);

    bool WantsBody() const { return head_.compare(0, 5, "HEAD ") != 0; }

  private:
    void ReadHead(std::size_t end);

    State state_ = State::kReading;
    std::string head_;
    bool headEnded_ = false;
    std::uint64_t bodyLeft_ = 0;
};

/// The answer, ready for the client.
std::string PageAnswer(const Page& page, bool withBody);
