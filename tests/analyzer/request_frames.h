// Frames for the tests of the analyzer, some of which may not include the headers that messages need.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct AskedRequest {
    std::uint32_t operation = 12;
    std::uint32_t address = 0xC0000201;  // 192.0.2.1
    std::uint16_t port = 443;
    std::string user = "DEMO\\alice";
    std::uint32_t processId = 4321;
    std::string data;
    /// Set by RequestFrame.
    std::uint32_t messageId = 0;
};

/// The frame of this request.
std::vector<unsigned char> RequestFrame(AskedRequest& asked);

struct GivenAnswer {
    bool readable = false;
    std::uint32_t requestId = 0;
    std::uint32_t action = 0;
    std::uint32_t flags = 0;
    std::uint32_t exemptProcessId = 0;
    /// First 8 bytes of the redirect address.
    std::string redirect;
    std::string data;
};

GivenAnswer ReadAnswer(std::vector<unsigned char> frame);
