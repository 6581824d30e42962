// Files that are read and written in one piece. Only regular ones: a FIFO would be waited for, and a device
// read as if it were an empty file.
#pragma once

#include <stdexcept>
#include <string>

/// "cannot read PATH: reason" or "cannot write PATH: reason".
class FileError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// The whole of a file. Throws FileError.
std::string ReadRegularFile(const std::string& path);

/// Gives a file this content, making the folders above it. A reader sees all of it or the file before it.
/// Throws FileError; then the file is as it was, and nothing lies beside it.
void ReplaceRegularFile(const std::string& path, const std::string& content);
