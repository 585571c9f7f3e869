// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>

#include "frame/signals.h"
#include "frame/startup.h"
#include "log/tb_log.h"

namespace {

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

TEST(Signals, AreCountedInAChildAndFiveAreLogged) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(in_child([] {
                  log_init();
                  mainPid = 1;
                  on_signal(SIGHUP);
                  for (int i = 0; i < 7; i++) {
                      on_signal(SIGTERM);
                  }
                  return exit_requested * 100 + shouldExit;
              }),
              107)
        << "SIGHUP is not among the handled ones";
    const std::string text = testing::internal::GetCapturedStdout();
    EXPECT_EQ(std::ranges::count(text, '\n'), 10);
    EXPECT_NE(text.find("] SYSTEM:(247) -  get a signal - 15. exit!!!\n"), std::string::npos);
    EXPECT_NE(text.find(" ignore signal 15 from children or thread!!! mainPid 1 curPid "),
              std::string::npos);
    EXPECT_NE(text.find(", shouldExit=4\n"), std::string::npos);
}

TEST(Signals, AFaultEndsAChild) {
    EXPECT_EQ(in_child([] {
                  alarm(10);  // ends one that goes back to its fault for ever
                  mainPid = getppid();
                  install_signal_handlers();
                  void* page = mmap(nullptr, 1, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
                  *static_cast<volatile char*>(page) = 1;
                  return 0;
              }),
              -SIGSEGV);
}

TEST(Signals, ABrokenPipeOfTheStartUpIsForgotten) {
    EXPECT_EQ(in_child([] {
                  int ends[2] = {};
                  signal(SIGPIPE, SIG_DFL);
                  block_sigpipe();
                  const bool failed = pipe(ends) == 0 && close(ends[0]) == 0 &&
                                      write(ends[1], "x", 1) < 0 && errno == EPIPE;
                  unblock_sigpipe();
                  return failed ? 7 : 1;
              }),
              7);
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
