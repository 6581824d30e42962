// See content_filter.h.
#include "analyzer/content_filter.h"

#include <algorithm>

namespace {

void Append(const unsigned char* bytes, std::size_t count, std::vector<unsigned char>& out) {
    out.insert(out.end(), bytes, bytes + count);
}

/// What one unusual message needed isn't kept for as long as the connection lasts.
void ReleaseRoom(std::vector<unsigned char>& buffer) {
    constexpr std::size_t kUsual = 16u * 1024;
    if (buffer.capacity() > kUsual) std::vector<unsigned char>().swap(buffer);
}

}  // namespace

ContentStage::ContentStage(const ContentRule& rule)
    : rule_(rule), search_(*rule.pattern), toLookAt_(rule.firstBytes) {}

bool ContentStage::Pass(const unsigned char* bytes, std::size_t count, std::vector<unsigned char>& out) {
    while (count != 0 && toLookAt_ != 0) {
        std::size_t looked = 0;
        const auto most = static_cast<std::size_t>(std::min<std::uint64_t>(count, toLookAt_));
        const std::optional<StreamSearch::Match> match = search_.Look(bytes, most, looked);
        // Half a replacement would be neither the one text nor the other.
        const bool passes = match && rule_.then == ContentAction::kReplace && !match->whole;
        PassAllBut(passes ? 0 : match ? match->length : search_.OpenBytes(), bytes, looked, out);
        bytes += looked;
        count -= looked;
        toLookAt_ -= looked;
        if (!match || passes) continue;
        kept_.clear();
        if (rule_.then != ContentAction::kReplace) return true;
        out.insert(out.end(), rule_.with.begin(), rule_.with.end());
        ++replaced_;
    }
    if (toLookAt_ == 0) {
        LetGo(out);
        Append(bytes, count, out);
    }
    return false;
}

/// Of what was kept and these bytes, the last `stay` are kept and the others go on.
void ContentStage::PassAllBut(std::size_t stay, const unsigned char* bytes, std::size_t count,
                              std::vector<unsigned char>& out) {
    const std::size_t go = kept_.size() + count - stay;
    const std::size_t fromKept = std::min(go, kept_.size());
    Append(kept_.data(), fromKept, out);
    kept_.erase(kept_.begin(), kept_.begin() + static_cast<std::ptrdiff_t>(fromKept));
    const std::size_t fromBytes = go - fromKept;
    Append(bytes, fromBytes, out);
    Append(bytes + fromBytes, count - fromBytes, kept_);
}

void ContentStage::LetGo(std::vector<unsigned char>& out) {
    Append(kept_.data(), kept_.size(), out);
    kept_.clear();
    search_.LetGo();
}

ContentFilter::ContentFilter(const InspectionPlan& plan, Side from) {
    for (const ContentRule& rule : plan.contents) {
        if (rule.from == from) stages_.emplace_back(rule);
    }
}

std::optional<ContentAction> ContentFilter::Pass(const unsigned char* bytes, std::size_t count,
                                                 std::vector<unsigned char>& out) {
    return Run(bytes, count, false, out);
}

std::optional<ContentAction> ContentFilter::LetGo(std::vector<unsigned char>& out) {
    return Run(nullptr, 0, true, out);
}

std::optional<ContentAction> ContentFilter::Run(const unsigned char* bytes, std::size_t count, bool letGo,
                                                std::vector<unsigned char>& out) {
    std::optional<ContentAction> ends;
    for (ContentStage& stage : stages_) {
        between_.clear();
        // A later rule that ends the stream does so before the bytes at which an earlier one did.
        if (stage.Pass(bytes, count, between_)) {
            ends = stage.Action();
            letGo = true;
        } else if (letGo) {
            stage.LetGo(between_);
        }
        given_.swap(between_);
        bytes = given_.data();
        count = given_.size();
    }
    Append(bytes, count, out);
    ReleaseRoom(given_);
    ReleaseRoom(between_);
    return ends;
}

bool ContentFilter::Keeps() const {
    return std::any_of(stages_.begin(), stages_.end(),
                       [](const ContentStage& stage) { return stage.Keeps(); });
}

std::uint64_t ContentFilter::Replaced() const {
    std::uint64_t replaced = 0;
    for (const ContentStage& stage : stages_)
        replaced += stage.Replaced();
    return replaced;
}
