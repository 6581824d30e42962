// The machine's names for this process, told to the loader from the moment that the library is there.
#include "platform/kernel/process_names.h"

#include "platform/system/machine.h"

namespace platform {

namespace {

ProcessNames NamesOfMachine() {
    const std::shared_ptr<const Machine> machine = TheMachine();
    return {machine->processImage, machine->extraModules};
}

struct Registration {
    Registration() { SetProcessNamesSource(NamesOfMachine); }
} RegisteredAtStart;

}  // namespace

}  // namespace platform
