// The configured catalog of the native target: the machine's base provider, and its layer if it has one.
#include "platform/system/machine.h"
#include "platform/winsock/catalog.h"

namespace winsock_host {

Catalog LoadConfiguredCatalog() {
    const std::shared_ptr<const platform::Machine> machine = platform::TheMachine();
    Catalog catalog = MakeBaseCatalog(Widen(machine->baseProvider));
    if (!machine->layer.empty()) AddLayer(catalog, Widen(machine->layer));
    return catalog;
}

}  // namespace winsock_host
