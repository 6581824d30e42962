// What qxrun refuses and says, and what a program finds that it starts.
#include <elf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

#include "apps/demo/stage.h"
#include "tests/analyzer/test_folder.h"

namespace {

using namespace std::chrono_literals;

struct Ended {
    int status;
    std::string output;
    std::string errors;
};

class Launcher : public testing::Test {
  protected:
    Ended Run(const std::vector<std::string>& arguments) {
        ChildOptions options;
        options.arguments = {(ProgramDirectory() / "qxrun").string()};
        options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
        options.environment = {{"QX_MACHINE", ""}};
        options.errorFile = File("errors");
        std::filesystem::remove(options.errorFile);
        ChildProcess program(options);
        Ended ended;
        ended.status = program.Wait(After(60s));
        for (const std::string& line : program.Output())
            ended.output += line + "\n";
        std::getline(std::ifstream(options.errorFile), ended.errors, '\0');
        return ended;
    }

    std::string File(const char* name) const { return folder_ / name; }

    std::string Write(const char* name, const std::string& content, mode_t mode) const {
        std::ofstream(File(name), std::ios::binary) << content;
        chmod(File(name).c_str(), mode);
        return File(name);
    }

    TestFolder folder_;
};

/// A program's head and nothing else: no interpreter, so that it would be a static one.
std::string Image(unsigned char kind) {
    Elf64_Ehdr header = {};
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = kind;
    std::ifstream own("/proc/self/exe", std::ios::binary);
    Elf64_Ehdr ownHeader;
    own.read(reinterpret_cast<char*>(&ownHeader), sizeof(ownHeader));
    header.e_machine = ownHeader.e_machine;
    return std::string(reinterpret_cast<const char*>(&header), sizeof(header));
}

TEST_F(Launcher, RefusesWhatCannotBePreloaded) {
    const std::string other = Write("other", "#!/bin/sh\n", 0755);
    const struct {
        std::vector<std::string> arguments;
        int status;
        const char* says;
    } rows[] = {
        {{"--", Write("static", Image(ELFCLASS64), 0755)}, 126, "linked statically"},
        {{"--", Write("small", Image(ELFCLASS32), 0755)}, 126, "32-bit"},
        {{"--", Write("script", "#!" + File("static") + "\n", 0755)}, 126, "linked statically"},
        {{"--", Write("text", "no program", 0755)}, 126, "neither a program nor a script"},
        {{"--", File("nowhere")}, 127, "there is no program"},
        {{"--", "/no such program/"}, 127, "there is no program"},
        {{"--machine", File("nowhere"), "--", "true"}, 2, "no machine file"},
        {{"--without-layer", "perhaps", "--", "true"}, 2, "run or refuse"},
        {{"--nonsense", "--", "true"}, 2, "no such option"},
        {{}, 2, "there is no program"},
    };
    for (const auto& row : rows) {
        const Ended ended = Run(row.arguments);
        EXPECT_EQ(ended.status, row.status) << row.says;
        EXPECT_NE(ended.errors.find(row.says), std::string::npos) << ended.errors;
    }
    if (geteuid() != 0) GTEST_SKIP() << "only root can make a set-user-id program of another user";
    const std::string raised = Write("raised", "", 0755);
    std::ofstream(raised, std::ios::binary) << std::ifstream("/bin/true", std::ios::binary).rdbuf();
    ASSERT_EQ(chown(raised.c_str(), 65534, 65534), 0);
    ASSERT_EQ(chmod(raised.c_str(), 04755), 0);
    const Ended ended = Run({"--", raised});
    EXPECT_EQ(ended.status, 126);
    EXPECT_NE(ended.errors.find("set-user-id"), std::string::npos) << ended.errors;
}

TEST_F(Launcher, AProgramKeepsItsStatusArgumentsAndChildren) {
    const Ended ended = Run({"--", "sh", "-c", "echo \"$0 $1\"; exit 42", "a", "b c"});
    EXPECT_EQ(ended.status, 42);
    EXPECT_EQ(ended.output, "a b c\n");
    // Also of a child whose starter emptied the environment.
    const std::string environment = Run({"--", "sh", "-c", "env -i /usr/bin/env"}).output;
    EXPECT_NE(environment.find("libqxrun.so"), std::string::npos) << environment;
    EXPECT_NE(environment.find("QX_MACHINE="), std::string::npos) << environment;
}

TEST_F(Launcher, ALayerThatCannotStartIsSaidOnceAndThePolicyDecides) {
    const std::string machine = Write("machine.toml", "[catalog]\nlayer = \"/nowhere/layer.so\"\n", 0644);
    const std::string program = "import socket; [socket.socket() for _ in range(3)]; print('ran')";
    for (const bool runs : {true, false}) {
        const Ended ended = Run({"--machine", machine, "--without-layer", runs ? "run" : "refuse", "--",
                                 "/usr/bin/python3", "-c", program});
        EXPECT_EQ(ended.status, runs ? 0 : 125);
        EXPECT_EQ(ended.output, runs ? "ran\n" : "");
        const std::string said = "the layer can't start";
        const std::size_t first = ended.errors.find(said);
        ASSERT_NE(first, std::string::npos) << ended.errors;
        EXPECT_EQ(ended.errors.find(said, first + 1), std::string::npos) << ended.errors;
    }
}

TEST_F(Launcher, RingsOfRequestsAreHidden) {
    const std::string program =
        "import ctypes, errno; libc = ctypes.CDLL(None, use_errno=True); libc.syscall(425, 1, None); "
        "print(errno.errorcode[ctypes.get_errno()])";
    EXPECT_EQ(Run({"--", "/usr/bin/python3", "-c", program}).output, "ENOSYS\n");
}

}  // namespace
