// The frames printed in docs/analyzer-protocol.md are what the message classes write and read, byte for byte.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "messages/analyzer_messages.h"
#include "tests/messages/frame_tools.h"

namespace {

/// The bytes of the block that opens with "```hex <name>"; what follows a # in a line is explanation.
Bytes FrameInDocument(const std::string& name) {
    std::ifstream document(QX_SOURCE_DIR "/docs/analyzer-protocol.md");
    Bytes frame;
    bool inside = false;
    for (std::string line; std::getline(document, line);) {
        if (inside && line == "```") break;
        if (inside) {
            std::istringstream bytes(line.substr(0, line.find('#')));
            for (std::string byte; bytes >> byte;) {
                frame.push_back(static_cast<unsigned char>(std::stoul(byte, nullptr, 16)));
            }
        }
        if (line == "```hex " + name) inside = true;
    }
    return frame;
}

TEST(ProtocolDocument, RequestReadsAsTheTextSaysAndIsWrittenTheSame) {
    Bytes frame = FrameInDocument("request");
    LSPAnalyzerMessage read;
    for (const std::size_t pieceSize : {1u, 7u, 4096u}) {
        Feed(read, frame, pieceSize);
        ASSERT_TRUE(read.Deserialize());
        EXPECT_EQ(read.GetExcessLength(), 0);
        EXPECT_EQ(read.ProcessId, 4321u);
        EXPECT_EQ(read.UserName, "DEMO\\alice");
        EXPECT_EQ(read.WindowTitle, "Main window");
        EXPECT_EQ(read.ImageSigner, "Demo Signer");
        EXPECT_EQ(read.RemotePort, 443);
        EXPECT_EQ(read.RemoteAddress.ss_family, 0) << "the family is not on the wire";
        EXPECT_EQ(read.Operation, OpConnect);
    }

    LSPAnalyzerMessage written;
    written.MessageId = read.MessageId;
    written.ProcessId = read.ProcessId;
    written.UserName = read.UserName;
    written.WindowTitle = read.WindowTitle;
    written.ImageSigner = read.ImageSigner;
    written.LocalPort = read.LocalPort;
    written.LocalAddress = read.LocalAddress;
    written.RemotePort = read.RemotePort;
    written.RemoteAddress = read.RemoteAddress;
    written.SocketType = SOCK_STREAM;
    written.Operation = OpConnect;
    EXPECT_EQ(FrameOf(written), frame);
}

TEST(ProtocolDocument, WhatTheRequestThereLeavesZeroIsWhereItsTableSays) {
    LSPAnalyzerMessage written;
    written.UserName = std::string(10, 'u');
    written.WindowTitle = std::string(11, 'w');
    written.ImageSigner = std::string(11, 's');
    written.Protocol = 0x80000000;
    written.Flags = 3;
    written.BytesSent = 0x1122334455667788;
    written.BytesReceived = 9;
    Bytes frame = FrameOf(written);
    const struct {
        std::size_t offset;
        std::uint32_t word;
    } words[] = {{286, 0x80000000}, {290, 0}, {294, 3}, {328, 0x55667788}, {332, 0x11223344}, {336, 9}};
    for (const auto& expected : words)
        EXPECT_EQ(WordAt(frame, 8 + expected.offset), expected.word) << expected.offset;

    LSPAnalyzerMessage read;
    Feed(read, frame);
    ASSERT_TRUE(read.Deserialize());
    EXPECT_EQ(read.Protocol, written.Protocol);
    EXPECT_EQ(read.Flags, written.Flags);
    EXPECT_EQ(read.BytesSent, written.BytesSent);
    EXPECT_EQ(read.BytesReceived, written.BytesReceived);
}

TEST(ProtocolDocument, ResponseAnswersTheRequestAndIsWrittenTheSame) {
    Bytes request = FrameInDocument("request");
    Bytes frame = FrameInDocument("response");
    LSPAnalyzerMessage asked;
    Feed(asked, request);
    ASSERT_TRUE(asked.Deserialize());
    LSPAnalyzerMessageResponse read;
    Feed(read, frame);
    ASSERT_TRUE(read.Deserialize());
    EXPECT_EQ(read.GetExcessLength(), 0);
    EXPECT_EQ(read.RequestId, asked.MessageId);
    EXPECT_EQ(read.Action, ActionRedirect);

    LSPAnalyzerMessageResponse written;
    written.MessageId = 1;
    written.RequestId = asked.MessageId;
    written.Action = ActionRedirect;
    written.Flags = kFlagCountTraffic | kFlagReportTraffic;
    auto* redirect = reinterpret_cast<sockaddr_in*>(&written.RedirectAddress);
    redirect->sin_family = AF_INET;
    redirect->sin_port = 0x78A0;
    const unsigned char address[] = {127, 0, 0, 1};
    std::memcpy(&redirect->sin_addr, address, sizeof(address));
    EXPECT_EQ(FrameOf(written), frame);
}

}  // namespace
