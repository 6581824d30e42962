// Winsock over the scripted provider: a catalog of its five base entries, started before the test and stopped
// after it, and the proof that nothing of the stand-in's resources stayed behind.
#pragma once

#include <winsock2.h>

#include <ws2spi.h>

#include <gtest/gtest.h>

#include "platform/testing/catalog.h"
#include "platform/testing/resource_counts.h"
#include "tests/support/scripted_provider.h"

class HostFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        before_ = platform::CountResources();
        winsock_host::SetCatalogForTest(winsock_host::MakeBaseCatalog(ScriptedProviderModule::Path()));
        WSADATA data;
        ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
    }

    void TearDown() override {
        StopWinsock();
        winsock_host::ResetCatalogForTest();
        EXPECT_EQ(platform::SettleTo(before_), "");
    }

    void StopWinsock() {
        while (WSACleanup() == 0) {
        }
    }

    /// Stops, and starts with another catalog.
    void RestartWith(winsock_host::Catalog catalog) {
        StopWinsock();
        winsock_host::SetCatalogForTest(std::move(catalog));
        WSADATA data;
        ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
    }

    static SOCKET TcpSocket() { return socket(AF_INET, SOCK_STREAM, IPPROTO_TCP); }

    ScriptedProviderModule provider_;

  private:
    platform::ResourceCounts before_;
};
