// SPDX-License-Identifier: Apache-2.0
// Programs of the device, run through /bin/sh. The daemon keeps SIGPIPE blocked in its working
// threads and its descriptors close-on-exec; what is started here gets an empty signal mask and
// none of the descriptors but those it is given. Any thread; the only state is the environment,
// under a lock. A thread that is cancelled in run_shell kills and reaps its shell first.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// One word for a shell command. Plain values (letters, digits and ._-/:@%+,=) come out byte for
// byte, anything else is quoted so that the shell takes it as one word and runs nothing in it.
// Line breaks are kept inside the quotes; a NUL ends the value.
[[nodiscard]] std::string shell_word(std::string_view value);
// The same for a program name with arguments: each blank-separated word by itself, blanks kept.
[[nodiscard]] std::string shell_words(std::string_view value);

// Runs a command and waits for it. Returns its wait status as system() does (exit code in bits 8
// to 15), or -1 when no shell could be started.
int run_shell(const char* command);

// Open descriptors of the caller, who keeps them, and their numbers in a job.
struct job_files {
    int lock = -1;     // JOB_LOCK: held as long as anything that the job started has it open
    int package = -1;  // JOB_PACKAGE: what the job works on
};
constexpr int JOB_LOCK = 8;
constexpr int JOB_PACKAGE = 9;

// The same for a command that starts others which must not outlive a cancelled thread: it leads a
// process group of its own, all of which is killed then, and reads nothing from standard input.
int run_shell_job(const char* command, const job_files& files);

// The same with a printf format; a command longer than 1023 bytes is not run (result -1), for a
// cut command is another command. Foreign values in it have passed shell_word.
int run_shell_format(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Runs a command and reads at most size - 1 bytes of its output into out, terminated. Returns the
// bytes read, or -1 when it could not be started. More output is dropped.
[[nodiscard]] long read_shell(const char* command, char* out, size_t size);

// Runs a command where no lock may be taken, in a signal handler or a forked child:
// async-signal-safe, waits for the shell to end.
void run_shell_unlocked(const char* command);

// Puts "NAME=value" into the environment of what is started from now on. The text itself becomes
// part of it, and the one it replaces is free again. Once threads run, for known names only.
[[nodiscard]] bool set_shell_variable(char* text);
