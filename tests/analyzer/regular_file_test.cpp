// Files that can't be read or written: what is said, and what stays.
#include "analyzer/regular_file.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "tests/analyzer/system_files.h"
#include "tests/analyzer/test_folder.h"

namespace {

std::string WhyNotReplaced(const std::string& path, const std::string& content) {
    try {
        ReplaceRegularFile(path, content);
        return "";
    } catch (const FileError& error) {
        return error.what();
    }
}

TEST(RegularFile, AFailedWriteLeavesTheFileBefore) {
    const TestFolder folder;
    const std::string path = folder / "file";
    ReplaceRegularFile(path, "old!");
    std::string reason;
    {
        const SmallFiles small;
        if (!small.Work()) GTEST_SKIP() << "not on this target";
        reason = WhyNotReplaced(path, "newer");
    }
    EXPECT_EQ(reason, "cannot write " + path + ": File too large");
    EXPECT_EQ(ReadRegularFile(path), "old!");
    EXPECT_EQ(folder.Entries(), 1u);
    EXPECT_EQ(WhyNotReplaced(path + "/inside", ""), "cannot write " + path + "/inside: Not a directory");
}

TEST(RegularFile, ADraftThatSomebodyLeftIsNoObstacle) {
    const TestFolder folder;
    const std::string path = folder / "file";
    if (!MakeFifo(path + ".new")) std::ofstream(path + ".new") << "half";
    ReplaceRegularFile(path, "whole");
    EXPECT_EQ(ReadRegularFile(path), "whole");
    EXPECT_EQ(folder.Entries(), 1u);
}

}  // namespace
