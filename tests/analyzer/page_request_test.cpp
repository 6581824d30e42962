// Where a request ends that the analyzer answers itself, however its bytes come.
#include "analyzer/page_request.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

using State = PageRequest::State;

TEST(PageRequest, EndsWhereItsLastByteIs) {
    const struct {
        std::string text;
        State state;
        bool wantsBody;
    } cases[] = {
        {"GET / HTTP/1.1\r\nHost: a\r\n\r\n", State::kWhole, true},
        {"HEAD / HTTP/1.0\r\n\r\n", State::kWhole, false},
        {"POST / HTTP/1.1\r\nCONTENT-length: \t5\r\n\r\n12345", State::kWhole, true},
        {"POST / HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 5\r\n\r\n", State::kWhole, true},
        {"POST / HTTP/1.1\r\nContent-Length: 99999999999999999999\r\n\r\n", State::kWhole, true},
        {"POST / HTTP/1.1\r\nContent-Length:\r\n\r\n", State::kWhole, true},
        {"GET / HTTP/1.1\r\nX-Content-Length: 5\r\n\r\n", State::kWhole, true},
        {"GET /" + std::string(16 * 1024 - 5, 'x'), State::kWhole, true},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.text.substr(0, 60));
        const auto* const bytes = reinterpret_cast<const unsigned char*>(row.text.data());
        for (const std::size_t piece : {std::size_t(1), std::size_t(7), row.text.size() - 1}) {
            PageRequest request;
            std::size_t at = 0;
            for (; at + piece < row.text.size(); at += piece)
                EXPECT_EQ(request.Read(bytes + at, piece), State::kReading) << at;
            EXPECT_EQ(request.Read(bytes + at, row.text.size() - at), row.state);
            EXPECT_EQ(request.WantsBody(), row.wantsBody);
        }
        PageRequest whole;
        EXPECT_EQ(whole.Read(bytes, row.text.size()), row.state);
    }
    PageRequest hello;
    const unsigned char tls[] = {0x16, 0x03, 0x01};
    EXPECT_EQ(hello.Read(tls, sizeof(tls)), State::kNoRequest);
}

}  // namespace
