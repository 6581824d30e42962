// The module as a test loads it.
#include "tests/support/scripted_provider.h"

#include <cstdlib>

// The build names the module: QX_SCRIPTED_PROVIDER is its path.

ScriptedProviderModule::ScriptedProviderModule()
    : module_(LoadLibraryA(QX_SCRIPTED_PROVIDER)), provider_(nullptr) {
    using Getter = ScriptedProvider* (*)();
    const auto getter = module_ == nullptr ? nullptr
                                           : reinterpret_cast<Getter>(reinterpret_cast<void*>(
                                                 GetProcAddress(module_, "GetScriptedProvider")));
    if (getter == nullptr) std::abort();  // a broken build, not a failing test
    provider_ = getter();
    provider_->Reset();
}

ScriptedProviderModule::~ScriptedProviderModule() {
    provider_->Reset();
    FreeLibrary(module_);
}

std::basic_string<WCHAR> ScriptedProviderModule::Path() {
    const std::string path = QX_SCRIPTED_PROVIDER;
    return std::basic_string<WCHAR>(path.begin(), path.end());
}
