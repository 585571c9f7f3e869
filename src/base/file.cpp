// SPDX-License-Identifier: Apache-2.0
#include "base/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "base/result.h"

namespace {

constexpr size_t PIECE = size_t{16} * 1024;

int fail_with(int error) {
    errno = error;
    return FAILED;
}

std::string folder_of(std::string_view path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) {
        return ".";
    }
    return std::string(path.substr(0, std::max<size_t>(slash, 1)));
}

// A rename outlives a power cut once its folder is synced. A file system that cannot sync folders
// has other ways.
bool sync_folder(const char* path) {
    const unique_fd folder(open(folder_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder && (fsync(folder.get()) == 0 || errno == EINVAL);
}

// What lies under the name is an earlier draft, or somebody's who wants to be written through.
// Where it cannot be removed, or is there again at once, another name is taken.
unique_fd open_draft(std::string* path) {
    (void)unlink(path->c_str());
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    unique_fd file(open(path->c_str(), flags, S_IRUSR | S_IWUSR));
    if (!file && errno == EEXIST) {
        *path += ".XXXXXX";
        file.reset(mkostemp(path->data(), O_CLOEXEC));
    }
    return file;
}

// The result of close counts: some file systems tell there that a write has failed.
bool fill_and_close(unique_fd file, std::string_view body, mode_t mode) {
    if (!write_whole(file.get(), body) || fchmod(file.get(), mode) != 0 || fsync(file.get()) != 0) {
        return false;
    }
    return close(file.release()) == 0;
}

}  // namespace

unique_fd open_regular(const char* path, size_t limit) {
    unique_fd file(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat info = {};
    if (!file || fstat(file.get(), &info) != 0) {
        return {};
    }
    const bool regular = S_ISREG(info.st_mode);
    if (regular && info.st_size >= 0 && static_cast<size_t>(info.st_size) <= limit) {
        return file;
    }
    file.reset();
    errno = regular ? EFBIG : EINVAL;
    return file;
}

int read_open_file(int fd, size_t limit, std::string* text) {
    std::string whole;
    for (;;) {
        const size_t used = whole.size();
        whole.resize(used + std::min(PIECE, limit + 1 - used));
        const ssize_t count = read(fd, whole.data() + used, whole.size() - used);
        if (count < 0 && errno != EINTR) {
            return FAILED;
        }
        whole.resize(used + static_cast<size_t>(std::max<ssize_t>(count, 0)));
        if (whole.size() > limit) {
            return fail_with(EFBIG);
        }
        if (count == 0) {
            *text = std::move(whole);
            return 0;
        }
    }
}

int read_file(const char* path, size_t limit, std::string* text) {
    const unique_fd file = open_regular(path, limit);
    return file ? read_open_file(file.get(), limit, text) : FAILED;
}

bool write_whole(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(fd, text.data(), text.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        text.remove_prefix(static_cast<size_t>(count));
    }
    return true;
}

int publish_file(const char* path, std::string_view body, mode_t mode) {
    std::string draft = std::string(path) + ".new";
    unique_fd file = open_draft(&draft);
    if (!file) {
        return FAILED;
    }
    if (!fill_and_close(std::move(file), body, mode) || rename(draft.c_str(), path) != 0) {
        const int error = errno;
        (void)unlink(draft.c_str());
        return fail_with(error);
    }
    return sync_folder(path) ? 0 : FAILED;
}
