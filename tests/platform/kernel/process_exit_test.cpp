// What the end of a process does to its threads and modules. Seen from outside, in another program.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "tests/platform/wine.h"

#ifdef _WIN32
#define popen _popen
#define pclose _pclose
#define WEXITSTATUS(status) (status)
#endif

namespace {

/// The probe's output; `*status` is its exit status.
std::string RunProbe(const std::string& how, int* status) {
    char own[MAX_PATH] = "";
    GetModuleFileNameA(nullptr, own, MAX_PATH);
    const std::string program(own);
    const std::string folder = program.substr(0, program.find_last_of("/\\") + 1);
    FILE* pipe = popen((folder + EXIT_PROBE_NAME " " TEST_MODULE_PATH " " + how).c_str(), "r");
    std::string output;
    char buffer[256];
    while (fgets(buffer, sizeof(buffer), pipe) != nullptr)
        output += buffer;
    *status = WEXITSTATUS(pclose(pipe));
    return output;
}

}  // namespace

TEST(ProcessExit, ModulesAreDetachedThoughThreadsStillRun) {
    int status = 0;
    EXPECT_EQ(RunProbe("plain", &status), "attach thread-attach detach! waited ");
    EXPECT_EQ(status, 17);
}

TEST(ProcessExit, NoThreadRunsOnWhileModulesAreDetached) {
    for (const char* how : {"busy", "waiting", "blocked"}) {
        int status = 0;
        const std::string output = RunProbe(how, &status);
        EXPECT_NE(output.find("detach! still "), std::string::npos) << how << ": " << output;
        EXPECT_EQ(status, 17) << how;
    }
}

TEST(ProcessExit, AModuleThatNeedsWhatAKilledThreadHeldEndsItAtOnce) {
    int status = 0;
    const std::string output = RunProbe("lock", &status);
    if (Keeps(Documented::kOrphanedSectionsEndTheProcess)) {
        EXPECT_EQ(output, "");
    }
    EXPECT_EQ(status, 17) << "the status it had";
}
