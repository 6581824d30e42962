// Files and troubles with files that only some systems have. One definition per target:
// system_files_posix.cpp, system_files_windows.cpp.
#pragma once

#include <string>

/// False where the target has none.
bool MakeFifo(const std::string& path);

/// While one lives, no file of this process can grow beyond two bytes.
class SmallFiles {
  public:
    SmallFiles();
    SmallFiles(const SmallFiles&) = delete;
    SmallFiles& operator=(const SmallFiles&) = delete;
    ~SmallFiles();

    /// False where the target can't do this.
    bool Work() const;
};
