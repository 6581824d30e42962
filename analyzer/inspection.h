// The analyzer's part in one split connection: what becomes of the bytes and the ends that the layer tells
// of. By its plan it passes bytes on, changes them, cuts a side, or is the server itself; and where one side
// has ended it ends the other, which would stay open for ever otherwise.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "analyzer/content_filter.h"
#include "analyzer/inspection_plan.h"
#include "analyzer/page_request.h"

/// What became of the bytes of a connection.
struct InspectionCounts {
    struct Direction {
        std::uint64_t received = 0;  ///< from the side
        std::uint64_t passed = 0;    ///< to the other side, or to this one where the analyzer is the server
    };
    Direction client;
    Direction server;
    std::uint64_t replaced = 0;
    std::uint32_t served = 0;  ///< the status of the page
    std::optional<ContentAction> cut;
};

class Inspection {
  public:
    /// Without a plan everything is passed on.
    explicit Inspection(std::shared_ptr<const InspectionPlan> plan);

    /// Each appends the frames of its answers to `out`.
    void OnData(Side from, const unsigned char* bytes, std::size_t count, std::vector<unsigned char>& out);
    void OnClosed(Side side, std::vector<unsigned char>& out);
    /// The application has closed its socket. Of a client side that was cut the layer tells no end, and
    /// nobody is left who could end the server's.
    void OnSocketClosed(std::vector<unsigned char>& out);
    /// To be called at intervals while Keeps. What is kept because it may be the beginning of something is
    /// let go when nothing has come from its side since the last call, so that nobody waits for it who has to
    /// speak next.
    void OnInterval(std::vector<unsigned char>& out);
    bool Keeps() const { return client_.Keeps() || server_.Keeps(); }

    std::uint32_t HoldMilliseconds() const { return plan_->holdMilliseconds; }
    InspectionCounts Counts() const;

  private:
    struct Stream {
        Stream(const InspectionPlan& plan, Side from) : filter(plan, from) {}

        bool Keeps() const { return !ended && filter.Keeps(); }

        ContentFilter filter;
        /// Whether the side can still be sent to.
        bool open = true;
        bool closeSent = false;
        /// A content rule has ended it: nothing that comes from the side goes on.
        bool ended = false;
        /// Nothing has come from it since the last interval.
        bool quiet = false;
        InspectionCounts::Direction counts;
    };

    Stream& From(Side side) { return side == Side::kClient ? client_ : server_; }
    void Serve(const unsigned char* bytes, std::size_t count, std::vector<unsigned char>& out);
    void Send(Side from, const unsigned char* bytes, std::size_t count, std::vector<unsigned char>& out);
    void LetGo(Side from, std::vector<unsigned char>& out);
    void Cut(Side from, ContentAction how, std::vector<unsigned char>& out);
    void CloseSide(Side side, std::vector<unsigned char>& out);

    const std::shared_ptr<const InspectionPlan> plan_;
    Stream client_;
    Stream server_;
    PageRequest pageRequest_;
    std::uint32_t served_ = 0;
    std::optional<ContentAction> cut_;
};
