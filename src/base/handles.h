// SPDX-License-Identifier: Apache-2.0
// Owners of things that must be released: descriptors, streams, heap text. One owner each; a
// hand-over is visible as .release() on the line that gives away. No state; any thread.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

// Owns one file descriptor; -1 is none.
class unique_fd {
  public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    unique_fd(unique_fd&& other) noexcept : fd_(other.release()) {}
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    ~unique_fd() { reset(); }

    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            (void)close(fd_);  // nothing to be done about a failing close of what was only read
        }
        fd_ = fd;
    }
    explicit operator bool() const { return fd_ >= 0; }

  private:
    int fd_ = -1;
};

struct close_file {
    void operator()(FILE* file) const { (void)fclose(file); }  // writers check fflush before
};
using file_ptr = std::unique_ptr<FILE, close_file>;

struct free_text {
    void operator()(char* text) const { free(text); }
};
struct close_folder {
    void operator()(DIR* folder) const { (void)closedir(folder); }
};
using folder_ptr = std::unique_ptr<DIR, close_folder>;

// A heap copy of a text, or none. heap_text() of a null pointer is none; a failed allocation too.
using text_ptr = std::unique_ptr<char, free_text>;
text_ptr heap_text(const char* text);
