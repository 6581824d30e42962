// What the table at the analyzer's end says of the connections.
#include "analyzer/traffic_summary.h"

#include <gtest/gtest.h>

namespace {

constexpr std::uint32_t kCount = 0x01;

Request Telling(const char* operation, std::uint32_t flags, std::uint64_t sent, std::uint64_t received) {
    Request request;
    request.operation = OperationByName(operation);
    request.processId = 4711;
    request.destination = {0xCB00710A, 80};
    request.flags = flags;
    request.bytesSent = sent;
    request.bytesReceived = received;
    return request;
}

TEST(TrafficSummary, AddsUpByProcessDestinationAndProtocol) {
    Rule allow;
    Rule refuse;
    refuse.verdict.action = RuleAction::kRefuse;
    TrafficSummary summary;
    EXPECT_TRUE(summary.Table().empty());
    summary.Add(ConnectionTally());
    EXPECT_TRUE(summary.Table().empty()) << "nothing was said on it";

    ConnectionTally counted;
    counted.Add(Telling("connect", 0, 0, 0), allow);
    Request http = Telling("send-protocol", kCount, 10, 0);
    http.protocol = 1;
    counted.Add(http, allow);
    counted.Add(Telling("receive", kCount, 5, 20), allow);
    counted.Add(Telling("close", kCount, 1, 2), refuse);  // nobody waits for that
    ConnectionTally goingOn;
    goingOn.Add(Telling("bind", 0, 0, 0), allow);
    goingOn.Add(Telling("connect", 0, 0, 0), allow);
    http.flags = 0;
    goingOn.Add(http, refuse);
    goingOn.Add(Telling("close", 0, 100, 7), allow);
    ConnectionTally other;
    other.Add(Telling("connect", 0, 0, 0), refuse);
    for (const ConnectionTally* connection : {&counted, &goingOn, &other})
        summary.Add(*connection);

    EXPECT_EQ(summary.JsonLines(),
              (std::vector<std::string>{
                  R"({"summary":{"process_id":4711,"destination":"203.0.113.10:80","protocol_name":"http",)"
                  R"("connections":2,"bytes_sent":116,"bytes_received":29,"refused":1}})",
                  R"({"summary":{"process_id":4711,"destination":"203.0.113.10:80","protocol_name":"none",)"
                  R"("connections":1,"bytes_sent":0,"bytes_received":0,"refused":1}})"}));
    EXPECT_EQ(summary.Table().size(), 3u) << "a heading and the rows";
}

}  // namespace
