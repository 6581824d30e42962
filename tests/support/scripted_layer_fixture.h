// The loaded layer above the scripted provider, which stands for TCP/IP or for another layer. Linked with the
// scripted provider's control.
#pragma once

#include <optional>

#include "platform/testing/catalog.h"
#include "tests/support/layer_fixture.h"
#include "tests/support/scripted_provider.h"

class ScriptedLayerFixture : public LayerFixture {
  protected:
    void SetUp() override {
        LayerFixture::SetUp();
        provider_.emplace();
    }
    void TearDown() override {
        provider_.reset();
        LayerFixture::TearDown();
        winsock_host::ResetCatalogForTest();
        winsock_host::DropCatalog();
    }

    /// Starts Winsock with the layer above a base provider (1) or above a layer (2).
    void StartAbove(int chainLength) {
        winsock_host::Catalog catalog = winsock_host::MakeBaseCatalog(ScriptedProviderModule::Path());
        winsock_host::AddLayer(catalog, winsock_host::Widen(Settings().layer));
        for (winsock_host::CatalogEntry& entry : catalog.entries) {
            WSAPROTOCOLCHAIN& chain = entry.info.ProtocolChain;
            if (chain.ChainLen != BASE_PROTOCOL || chainLength == BASE_PROTOCOL) continue;
            chain = {chainLength, {kOtherLayer, kOtherBase}};
        }
        winsock_host::SetCatalogForTest(catalog);
        StartWinsock();
    }

    ScriptedProvider& Provider() { return **provider_; }

  private:
    static constexpr DWORD kOtherLayer = 3000;
    static constexpr DWORD kOtherBase = 3001;
    std::optional<ScriptedProviderModule> provider_;
};
