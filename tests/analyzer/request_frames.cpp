// See request_frames.h.
#include "tests/analyzer/request_frames.h"

#include "tests/messages/frame_tools.h"

std::vector<unsigned char> RequestFrame(AskedRequest& asked) {
    LSPAnalyzerMessage request;
    auto* const data = reinterpret_cast<unsigned char*>(asked.data.data());
    const BufferPiece piece{static_cast<std::uint32_t>(asked.data.size()), data};
    if (!asked.data.empty()) request.SetDataBuffers(&piece, 1, 0, false);
    request.ProcessId = asked.processId;
    request.UserName = asked.user;
    request.WindowTitle = "Main window";
    request.SocketType = SOCK_STREAM;
    request.RemotePort = asked.port;
    auto* address = reinterpret_cast<unsigned char*>(&request.RemoteAddress) + 4;
    for (int octet = 0; octet < 4; ++octet) {
        address[octet] = static_cast<unsigned char>(asked.address >> (24 - 8 * octet));
    }
    request.Operation = asked.operation;
    asked.messageId = request.MessageId;
    return FrameOf(request);
}

GivenAnswer ReadAnswer(std::vector<unsigned char> frame) {
    LSPAnalyzerMessageResponse response;
    Feed(response, frame);
    GivenAnswer answer;
    answer.readable = response.Deserialize() && response.GetExcessLength() == 0;
    answer.requestId = response.RequestId;
    answer.action = response.Action;
    answer.flags = response.Flags;
    answer.exemptProcessId = response.ExemptProcessId;
    answer.redirect.assign(reinterpret_cast<const char*>(&response.RedirectAddress), 8);
    PieceArray data;
    if (answer.readable && response.GetDataBuffers(data.pieces, data.count, false)) {
        const Bytes flat = data.Flat();
        answer.data.assign(flat.begin(), flat.end());
    }
    return answer;
}
