// SPDX-License-Identifier: Apache-2.0
#include "frame/pid_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/handles.h"
#include "base/text.h"

namespace {

void write_pid(int fd) {
    char text[24] = {};
    format_text(text, "%ld", static_cast<long>(getpid()));
    if (ftruncate(fd, 0) == 0) {
        // With its terminating zero. A full disk must not keep the daemon from running.
        [[maybe_unused]] const ssize_t written = write(fd, text, strlen(text) + 1);
    }
}

}  // namespace

int lock_whole_file(int fd) {
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return fcntl(fd, F_SETLK, &lock);
}

int lock_pid_file(const char* path) {
    unique_fd file(open(path == nullptr ? PID_FILE : path, O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (!file) {
        return PID_NOT_OPENED;
    }
    if (lock_whole_file(file.get()) == 0) {
        write_pid(file.release());  // open for the life of the process, and so is the lock
        return 0;
    }
    if (errno != EACCES && errno != EAGAIN) {
        (void)file.release();  // stays open, as the caller ends the process
        return PID_LOCK_FAILED;
    }
    return PID_LOCKED;
}
