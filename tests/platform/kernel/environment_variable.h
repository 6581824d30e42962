// An environment variable of the process, for one scope. Both targets' own way, since the API's is not
// provided.
#pragma once

#include <cstdlib>
#include <string>

class ScopedVariable {
  public:
    ScopedVariable(const char* name, const char* value) : name_(name) { Set(value); }
    ~ScopedVariable() { Set(nullptr); }
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;

  private:
    void Set(const char* value) const {
#ifdef _WIN32
        _putenv((name_ + "=" + (value != nullptr ? value : "")).c_str());
#else
        if (value != nullptr) setenv(name_.c_str(), value, 1);
        if (value == nullptr) unsetenv(name_.c_str());
#endif
    }

    const std::string name_;
};
