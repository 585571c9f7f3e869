// SPDX-License-Identifier: Apache-2.0
// The pid file, whose lock lets one copy of the daemon run. The descriptor stays open, and the
// lock held, for the life of the process; nothing else in the daemon opens the file, for closing
// any descriptor of it would drop the lock. Only a lock for writing, which the file's mode keeps
// from others, is a daemon's: with another one the file is replaced, PATH.new being the draft. Main
// thread.
#pragma once

constexpr const char* PID_FILE = "/var/run/pluginmgr.pid";

constexpr int PID_NOT_OPENED = -1;
constexpr int PID_LOCKED = -2;  // by another process
constexpr int PID_LOCK_FAILED = -3;

// Takes the lock of the file that has this path, and writes this process's id. path null is
// PID_FILE. 0 or one of the above; where others are at it at the same time, after a second at most.
[[nodiscard]] int lock_pid_file(const char* path);

// Sets a write lock on the whole file without waiting; the result of fcntl().
[[nodiscard]] int lock_whole_file(int fd);
