// SPDX-License-Identifier: Apache-2.0
#include "frame/pid_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/handles.h"
#include "base/text.h"

namespace {

constexpr mode_t FILE_MODE = S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH;
constexpr mode_t PRIVATE_MODE = S_IRUSR | S_IWUSR;
constexpr size_t PATH_SIZE = 128;
constexpr int MAX_ATTEMPTS = 100;
constexpr useconds_t ATTEMPT_PAUSE = 10'000;  // microseconds
constexpr int AGAIN = 1;                      // beside the results of lock_pid_file

int set_lock(int fd, short type) {
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return fcntl(fd, F_SETLK, &lock);
}

bool is_held_by_another() {
    return errno == EACCES || errno == EAGAIN;
}

// Whether the file is still the one that others find.
bool is_at(int fd, const char* path) {
    struct stat mine = {};
    struct stat there = {};
    return fstat(fd, &mine) == 0 && stat(path, &there) == 0 && mine.st_dev == there.st_dev &&
           mine.st_ino == there.st_ino;
}

// With its terminating zero, behind which a text that cannot be cut says nothing. A full disk must
// not keep the daemon from running.
void write_pid(int fd) {
    char text[24] = {};
    format_text(text, "%ld", static_cast<long>(getpid()));
    const size_t size = strlen(text) + 1;
    [[maybe_unused]] const ssize_t written = pwrite(fd, text, size, 0);
    [[maybe_unused]] const int cut = ftruncate(fd, static_cast<off_t>(size));
}

// Somebody's lock for reading, which the file's mode allows to all, keeps the owner's from it. Our
// own one of that kind shows that no daemon has the file, and keeps any from taking it until a new
// one is in its place. Of several that do this at once, one has the draft: until it is in place
// nobody else can open it.
int renew_file(int old, const char* path) {
    if (set_lock(old, F_RDLCK) != 0) {
        return is_held_by_another() ? PID_LOCKED : PID_LOCK_FAILED;
    }
    char draft[PATH_SIZE] = {};
    format_text(draft, "%s.new", path);
    constexpr int flags = O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC;
    unique_fd file(open(draft, flags, PRIVATE_MODE));
    if (!file) {
        return PID_NOT_OPENED;
    }
    if (lock_whole_file(file.get()) != 0) {
        return is_held_by_another() ? AGAIN : PID_LOCK_FAILED;
    }
    if (!is_at(file.get(), draft)) {
        return AGAIN;
    }
    if (!is_at(old, path)) {
        (void)unlink(draft);
        return AGAIN;
    }
    write_pid(file.get());
    if (rename(draft, path) != 0) {
        return PID_NOT_OPENED;
    }
    (void)fchmod(file.release(), FILE_MODE);  // open for the life of the process
    return 0;
}

int try_lock(const char* path) {
    unique_fd file(open(path, O_RDWR | O_CREAT | O_CLOEXEC, FILE_MODE));
    if (!file) {
        return PID_NOT_OPENED;
    }
    if (lock_whole_file(file.get()) == 0) {
        if (!is_at(file.get(), path)) {
            return AGAIN;  // replaced meanwhile
        }
        write_pid(file.release());  // open for the life of the process, and so is the lock
        return 0;
    }
    if (is_held_by_another()) {
        return renew_file(file.get(), path);
    }
    (void)file.release();  // stays open, as the caller ends the process
    return PID_LOCK_FAILED;
}

}  // namespace

int lock_whole_file(int fd) {
    return set_lock(fd, F_WRLCK);
}

int lock_pid_file(const char* path) {
    int result = AGAIN;
    for (int i = 0; result == AGAIN && i < MAX_ATTEMPTS; i++) {
        (void)usleep(i == 0 ? 0 : ATTEMPT_PAUSE);
        result = try_lock(path == nullptr ? PID_FILE : path);
    }
    return result == AGAIN ? PID_LOCKED : result;
}
