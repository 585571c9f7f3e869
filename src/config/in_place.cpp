// SPDX-License-Identifier: Apache-2.0
#include "config/in_place.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "log/tb_log.h"

namespace {

// Calls again what a signal has interrupted.
template <typename Call>
auto uninterrupted(Call call) {
    auto result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    return result;
}

// One write, unless the system takes it in pieces.
bool put_text(int fd, std::string_view text, off_t at) {
    while (!text.empty()) {
        const ssize_t count =
            uninterrupted([&] { return pwrite(fd, text.data(), text.size(), at); });
        if (count <= 0) {
            return false;
        }
        text.remove_prefix(static_cast<size_t>(count));
        at += count;
    }
    return true;
}

bool set_length(int fd, size_t length) {
    return uninterrupted([&] { return ftruncate(fd, static_cast<off_t>(length)); }) == 0;
}

// Gets the room for a longer text before a byte of the old one is overwritten.
bool reserve_room(int fd, size_t old_size, size_t size) {
    if (size <= old_size) {
        return true;
    }
    const auto length = static_cast<off_t>(size);
    if (uninterrupted([&] { return fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, length); }) == 0) {
        return true;
    }
    // Where it cannot be asked for it is taken: empty lines behind the old text say nothing.
    return (errno == EOPNOTSUPP || errno == ENOSYS) &&
           put_text(fd, std::string(size - old_size, '\n'), static_cast<off_t>(old_size));
}

}  // namespace

bool read_text(int fd, std::string* text) {
    struct stat state = {};
    if (fstat(fd, &state) != 0) {
        return false;
    }
    text->resize(static_cast<size_t>(state.st_size));
    size_t got = 0;
    while (got < text->size()) {
        const ssize_t count = uninterrupted([&] {
            return pread(fd, text->data() + got, text->size() - got, static_cast<off_t>(got));
        });
        if (count < 0) {
            return false;
        }
        if (count == 0) {
            break;
        }
        got += static_cast<size_t>(count);
    }
    text->resize(got);
    return true;
}

bool write_text(int fd, std::string_view text) {
    return put_text(fd, text, 0);
}

bool overwrite(int fd, const std::string& old, const std::string& text) {
    std::string cover = text;
    cover.resize(std::max(text.size(), old.size()), '\n');
    if (!reserve_room(fd, old.size(), text.size()) || !put_text(fd, cover, 0) ||
        (text.size() < old.size() && !set_length(fd, text.size()))) {
        // Best effort, into room that the file has already.
        (void)put_text(fd, old, 0);
        (void)set_length(fd, old.size());
        return false;
    }
    if (uninterrupted([&] { return fsync(fd); }) != 0) {
        log_err(__func__, __LINE__, "new text may not outlive a power cut: %s", strerror(errno));
    }
    return true;
}
