// Replaces the Winsock catalog in process, for tests: a scripted provider, a chain of several layers, a
// provider that cannot be loaded. The entries are made with the functions of platform/winsock/catalog.h or by
// hand.
#pragma once

#include "platform/winsock/catalog.h"

namespace winsock_host {

/// `catalog` is what Winsock finds from its next start on.
void SetCatalogForTest(Catalog catalog);

/// Back to the configured catalog, in the same way.
void ResetCatalogForTest();

}  // namespace winsock_host
