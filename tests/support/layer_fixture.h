// A test that runs against the loaded layer: a machine of its own (catalog with layer and base provider,
// application data folder in a fresh directory, registry, routes), Winsock started on it, and after the test
// the proof that everything the process held came back: handles, sockets, threads, heaps, heap blocks,
// modules, critical sections. One test at a time per process. The layer is seen through Winsock alone, as by
// any application.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/system/machine.h"
#include "platform/testing/debug_output.h"
#include "platform/testing/resource_counts.h"

class LayerFixture : public ::testing::Test {
  protected:
    void SetUp() override;

    /// Disarms what faults the test has left, stops Winsock if it is still started, and compares the resource
    /// counts with those before the test.
    void TearDown() override;

    /// The settings that StartWinsock puts into force; a test changes them before. They start as: layer and
    /// base provider of this build, an empty registry, the fresh application data folder, no routes.
    platform::Machine& Settings() { return machine_; }

    /// Puts the settings as they are now into force; StartWinsock does so too. Everything but the catalog may
    /// be changed while Winsock runs.
    void ApplyMachine();

    /// Tells the layer where its analyzer listens, through the port file.
    void SetAnalyzerPort(std::uint16_t port);

    /// A number under the product's registry key.
    void SetRegistryValue(const std::string& name, DWORD value);

    /// Connects and datagrams to `destination` ("203.0.113.10:80") go to a port of the loopback interface
    /// instead, or never come to an end.
    void RouteTo(const std::string& destination, std::uint16_t loopbackPort);
    void RouteToNowhere(const std::string& destination);

    /// After a StopWinsock too: it waits until the layer of before has gone.
    void StartWinsock();

    /// The last clean-up of the process; its waits run at many times their speed.
    void StopWinsock();

    /// For a test whose own failing releases leave something behind: nothing is compared after it.
    void ExpectLeftovers() { expectLeftovers_ = true; }

    /// For a test after which the library may stay loaded for good, with what belongs to it and nothing else.
    void AllowTheLayerToStay() {
        before_.modules += 1;
        before_.tlsSlots += 2;
        before_.criticalSections += 64;
    }

    /// What was written to the debug output since SetUp.
    std::vector<std::string> DebugLines() const { return debugOutput_->Texts(); }
    std::size_t CountDebugLines(const std::string& part) const;

  private:
    platform::MachineRoute& AddRoute(const std::string& destination);

    platform::Machine machine_;
    std::string directory_;
    platform::ResourceCounts before_;
    std::optional<platform::DebugOutputCapture> debugOutput_;
    bool started_ = false;
    bool stopped_ = false;
    bool expectLeftovers_ = false;
};

/// The IPv4 address "203.0.113.10" with a port, as the Winsock calls want it.
sockaddr_in Ipv4(const std::string& address, std::uint16_t port);
