// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <string>

#include "frame/pid_file.h"
#include "frame/signals.h"
#include "frame/startup.h"
#include "log/tb_log.h"
#include "scratch.h"

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

namespace {

class PidFile : public scratch {
  protected:
    // In a child: a lock of that type on the file, held until the returned end of a pipe is closed.
    int hold(short type) {
        int started[2] = {};
        int ended[2] = {};
        if (pipe(started) != 0 || pipe(ended) != 0) {
            abort();
        }
        holder = fork();
        if (holder == 0) {
            close(ended[1]);
            const int file = open(path.c_str(), type == F_WRLCK ? O_RDWR : O_RDONLY);
            struct flock lock = {};
            lock.l_type = type;
            char byte = fcntl(file, F_SETLK, &lock) == 0 ? 'y' : 'n';
            (void)!write(started[1], &byte, 1);
            (void)!read(ended[0], &byte, 1);
            _exit(0);
        }
        char byte = 0;
        EXPECT_EQ(read(started[0], &byte, 1), 1);
        EXPECT_EQ(byte, 'y');
        close(started[0]);
        close(started[1]);
        close(ended[0]);
        return ended[1];
    }
    void let_go(int end) const {
        close(end);
        waitpid(holder, nullptr, 0);
    }

    const std::string path = in("pid");
    pid_t holder = 0;
};

}  // namespace

TEST_F(PidFile, IsADaemonsByALockForWritingAlone) {
    const auto lock = [this] { return -lock_pid_file(path.c_str()); };
    EXPECT_EQ(in_child(lock), 0) << "a new one";
    for (const bool writing : {true, false}) {
        write_file(path, "7");
        ASSERT_EQ(chmod(path.c_str(), 0644), 0);
        const int end = hold(writing ? F_WRLCK : F_RDLCK);
        EXPECT_EQ(in_child(lock), writing ? -PID_LOCKED : 0);
        EXPECT_EQ(read_file(path) == "7", writing);
        EXPECT_EQ(in_child([&] {
                      return lock() != 0 || read_file(path) != std::to_string(getpid()) + '\0';
                  }),
                  writing ? 1 : 0);
        struct stat info = {};
        EXPECT_EQ(stat(path.c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 07777U, 0644U);
        let_go(end);
    }
    EXPECT_FALSE(std::filesystem::exists(path + ".new"));
}

// Of several that start side by side under a stranger's lock, one runs.
TEST_F(PidFile, HasOneOwnerHoweverManyAsk) {
    for (int round = 0; round < 20; round++) {
        write_file(path, "7");
        const int end = hold(F_RDLCK);
        int results[2] = {};
        int go[2] = {};
        ASSERT_EQ(pipe(results) + pipe(go), 0);
        pid_t children[6] = {};
        for (pid_t& child : children) {
            child = fork();
            if (child == 0) {
                close(go[1]);
                const char won = lock_pid_file(path.c_str()) == 0 ? 'w' : 'l';
                (void)!write(results[1], &won, 1);
                char byte = 0;
                (void)!read(go[0], &byte, 1);  // holds what it has
                _exit(0);
            }
        }
        std::string all;
        for (size_t i = 0; i < std::size(children); i++) {
            char byte = 0;
            ASSERT_EQ(read(results[0], &byte, 1), 1);
            all += byte;
        }
        EXPECT_EQ(std::ranges::count(all, 'w'), 1) << all;
        for (const int fd : {go[0], go[1], results[0], results[1]}) {
            close(fd);
        }
        for (const pid_t child : children) {
            waitpid(child, nullptr, 0);
        }
        let_go(end);
    }
}

TEST_F(PidFile, HasTheIdEvenWhenItCannotBeCut) {
    const int file = memfd_create("pid", MFD_ALLOW_SEALING);
    ASSERT_EQ(write(file, "a longer text", 13), 13);
    ASSERT_EQ(fcntl(file, F_ADD_SEALS, F_SEAL_SHRINK), 0);
    const std::string name = "/proc/self/fd/" + std::to_string(file);
    EXPECT_EQ(in_child([&] {
                  return lock_pid_file(name.c_str()) != 0 ||
                         read_file(name).c_str() != std::to_string(getpid());
              }),
              0);
    close(file);
}

TEST(Environment, AppendsWithAColon) {
    setenv("UNIT_PATH", "/bin", 1);
    EXPECT_EQ(add_env("UNIT_PATH", "/var/run"), 0);
    EXPECT_STREQ(getenv("UNIT_PATH"), "/bin:/var/run");
    EXPECT_EQ(add_env("UNIT_PATH", "/var/run"), 0);
    EXPECT_STREQ(getenv("UNIT_PATH"), "/bin:/var/run") << "once, whoever has put it there";
    setenv("UNIT_PATH", "/var/run2:/x/var/run", 1);
    EXPECT_EQ(add_env("UNIT_PATH", "/var/run"), 0);
    EXPECT_STREQ(getenv("UNIT_PATH"), "/var/run2:/x/var/run:/var/run");
    setenv("UNIT_PATH", "/var/run:/bin", 1);
    EXPECT_EQ(add_env("UNIT_PATH", "/var/run"), 0);
    EXPECT_STREQ(getenv("UNIT_PATH"), "/var/run:/bin");
    setenv("UNIT_PATH", "/bin:/var/run", 1);
    EXPECT_EQ(add_env("UNIT_PATH", ""), 0);
    EXPECT_STREQ(getenv("UNIT_PATH"), "/bin:/var/run");
    EXPECT_EQ(add_env("UNIT_NONE", ""), -1);
    EXPECT_EQ(getenv("UNIT_NONE"), nullptr);
    setenv("UNIT_PATH", std::string(3000, 'x').c_str(), 1);
    EXPECT_EQ(add_env("UNIT_PATH", "/var/run"), 0);
    EXPECT_EQ(std::string(getenv("UNIT_PATH")).size(), 1255U) << "cut, not overrun";
}
