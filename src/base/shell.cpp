// SPDX-License-Identifier: Apache-2.0
#include "base/shell.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/handles.h"
#include "base/text.h"

extern char** environ;

namespace {

constexpr size_t MAX_COMMAND = 1024;

// Held while the environment is read or changed.
pthread_mutex_t environment_lock = PTHREAD_MUTEX_INITIALIZER;

bool is_plain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           (c != '\0' && strchr("._-/:@%+,=", c) != nullptr);
}

// A process group of its own is none that may read from the terminal: it would be stopped for good.
void lead_group(posix_spawnattr_t* attributes, posix_spawn_file_actions_t* actions) {
    posix_spawnattr_setpgroup(attributes, 0);
    posix_spawn_file_actions_addopen(actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
}

// By way of a third number: either source may have the other's future one.
void give_job_files(posix_spawn_file_actions_t* actions, const job_files& files) {
    int spare = JOB_PACKAGE + 1;
    while (spare == files.lock || spare == files.package) {
        spare++;
    }
    posix_spawn_file_actions_adddup2(actions, files.lock, spare);
    posix_spawn_file_actions_adddup2(actions, files.package, JOB_PACKAGE);
    posix_spawn_file_actions_adddup2(actions, spare, JOB_LOCK);
    posix_spawn_file_actions_addclose(actions, spare);
}

// Starts /bin/sh -c command with an empty signal mask; output, when not -1, becomes its standard
// output, job's files its own, in a process group of its own. The child's id, or -1.
pid_t spawn_shell(const char* command, int output = -1, const job_files* job = nullptr) {
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t actions;
    sigset_t none;
    sigset_t dispositions;
    sigemptyset(&none);
    sigemptyset(&dispositions);
    sigaddset(&dispositions, SIGPIPE);
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_setflags(&attributes,
                             static_cast<short>(POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                                (job != nullptr ? POSIX_SPAWN_SETPGROUP : 0)));
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &dispositions);
    if (output >= 0) {
        posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    }
    if (job != nullptr) {
        lead_group(&attributes, &actions);
        give_job_files(&actions, *job);
    }
    char shell[] = "sh";
    char option[] = "-c";
    char* const arguments[] = {shell, option, const_cast<char*>(command), nullptr};
    pid_t child = -1;
    const int error = posix_spawn(&child, "/bin/sh", &actions, &attributes, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    return error == 0 ? child : -1;
}

// No cancellation point: the lock is always given back.
pid_t start_shell(const char* command, int output = -1, const job_files* job = nullptr) {
    pthread_mutex_lock(&environment_lock);
    const pid_t child = spawn_shell(command, output, job);
    pthread_mutex_unlock(&environment_lock);
    return child;
}

int wait_for(pid_t child) {
    int status = -1;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return status;
}

void kill_and_reap(void* argument) {
    const pid_t child = *static_cast<pid_t*>(argument);
    kill(child, SIGKILL);
    (void)wait_for(child);
}

// The group outlives its leader, which is reaped last so that nobody else gets its number.
void kill_group_and_reap(void* argument) {
    kill(-*static_cast<pid_t*>(argument), SIGKILL);
    (void)wait_for(*static_cast<pid_t*>(argument));
}

int wait_or_end(pid_t child, void (*end)(void*)) {
    int status = -1;
    pthread_cleanup_push(end, &child);
    status = wait_for(child);
    pthread_cleanup_pop(0);
    return status;
}

}  // namespace

std::string shell_word(std::string_view value) {
    value = value.substr(0, value.find('\0'));
    bool plain = !value.empty();
    for (const char c : value) {
        plain = plain && is_plain(c);
    }
    if (plain) {
        return std::string(value);
    }
    std::string word = "'";
    for (const char c : value) {
        if (c == '\'') {
            word += "'\\''";
        } else {
            word += c;
        }
    }
    word += '\'';
    return word;
}

std::string shell_words(std::string_view value) {
    std::string words;
    while (!value.empty()) {
        const size_t length = std::min(value.find(' '), value.size());
        if (length > 0) {
            words += shell_word(value.substr(0, length));
        }
        value.remove_prefix(length);
        if (!value.empty()) {
            words += ' ';
            value.remove_prefix(1);
        }
    }
    return words;
}

int run_shell(const char* command) {
    const pid_t child = start_shell(command);
    return child < 0 ? -1 : wait_or_end(child, kill_and_reap);
}

int run_shell_job(const char* command, const job_files& files) {
    const pid_t child = start_shell(command, -1, &files);
    const int status = child < 0 ? -1 : wait_or_end(child, kill_group_and_reap);
    if (status > 0 && WIFSIGNALED(status)) {
        (void)kill(-child, SIGKILL);  // what a killed shell leaves would go on beside the next try
    }
    return status;
}

int run_shell_format(const char* format, ...) {
    char command[MAX_COMMAND] = {};
    va_list args;
    va_start(args, format);
    const bool whole = format_into_v(command, sizeof command, format, args);
    va_end(args);
    return whole ? run_shell(command) : -1;
}

long read_shell(const char* command, char* out, size_t size) {
    int ends[2] = {-1, -1};
    if (size == 0 || pipe2(ends, O_CLOEXEC) != 0) {
        return -1;
    }
    unique_fd read_end(ends[0]);
    unique_fd write_end(ends[1]);
    const pid_t child = start_shell(command, write_end.get());
    write_end.reset();
    if (child < 0) {
        return -1;
    }
    size_t total = 0;
    while (total < size - 1) {
        const ssize_t count = read(read_end.get(), out + total, size - 1 - total);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            break;
        }
        total += static_cast<size_t>(count);
    }
    out[total] = '\0';
    read_end.reset();  // a program that has more to say gets a broken pipe, not an endless wait
    (void)wait_for(child);
    return static_cast<long>(total);
}

void run_shell_unlocked(const char* command) {
    // Spawning takes no lock of the allocator, as fork() would: the interrupted code may hold it.
    const pid_t child = spawn_shell(command);
    if (child > 0) {
        (void)wait_for(child);
    }
}

bool set_shell_variable(char* text) {
    pthread_mutex_lock(&environment_lock);
    const bool done = putenv(text) == 0;
    pthread_mutex_unlock(&environment_lock);
    return done;
}
