// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "frame/pid_file.h"
#include "frame/signals.h"
#include "frame/startup.h"

namespace {

std::string text_of_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// Runs body in a child and gives its exit status.
template <typename Body>
int in_child(Body body) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(body());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

}  // namespace

TEST(PidFile, OneHolderAStalePidIsReplaced) {
    char folder[] = "/tmp/pidXXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string path = std::string(folder) + "/pid";
    std::ofstream(path) << "a longer text of a copy that was killed";

    ASSERT_EQ(lock_pid_file(path.c_str()), 0);
    const std::string mine = std::to_string(getpid()) + '\0';
    EXPECT_EQ(text_of_file(path), mine);
    EXPECT_EQ(in_child([&] { return lock_pid_file(path.c_str()) == PID_LOCKED ? 7 : 1; }), 7);
    EXPECT_EQ(text_of_file(path), mine) << "a second copy leaves the first one's id";
    EXPECT_EQ(lock_pid_file("/nonexistent/pid"), PID_NOT_OPENED);
}

TEST(Signals, EndTheDaemonAndAreCountedInAChild) {
    EXPECT_EQ(in_child([] {
                  mainPid = getpid();
                  on_signal(SIGTERM);
                  return 1;
              }),
              0);
    EXPECT_EQ(in_child([] {
                  mainPid = getppid();
                  on_signal(SIGHUP);
                  on_signal(SIGTERM);
                  on_signal(SIGINT);
                  return exit_requested * 100 + shouldExit;
              }),
              102)
        << "SIGHUP is not among the handled ones";
}

TEST(Environment, AppendsWithAColon) {
    setenv("UNIT_PATH", "/bin", 1);
    EXPECT_EQ(add_env("UNIT_PATH", "/var/run"), 0);
    EXPECT_STREQ(getenv("UNIT_PATH"), "/bin:/var/run");
    EXPECT_EQ(add_env("UNIT_PATH", ""), 0);
    EXPECT_STREQ(getenv("UNIT_PATH"), "/bin:/var/run");
    EXPECT_EQ(add_env("UNIT_NONE", ""), -1);
    EXPECT_EQ(getenv("UNIT_NONE"), nullptr);
    setenv("UNIT_PATH", std::string(3000, 'x').c_str(), 1);
    EXPECT_EQ(add_env("UNIT_PATH", "/var/run"), 0);
    EXPECT_EQ(std::string(getenv("UNIT_PATH")).size(), 1255U) << "cut, not overrun";
}
