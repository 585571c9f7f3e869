// SPDX-License-Identifier: Apache-2.0
#include "base/file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/result.h"
#include "base/text.h"

namespace {

constexpr size_t PIECE = size_t{16} * 1024;

constexpr size_t PATH_SIZE = 512;
constexpr size_t FD_PATH_SIZE = 32;
constexpr int MAX_DEPTH = 64;  // of folders in folders that are removed

int fail_with(int error) {
    errno = error;
    return FAILED;
}

bool is_only_ours(const struct stat& info) {
    return (info.st_uid == 0 || info.st_uid == geteuid()) && info.st_nlink == 1 &&
           (info.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Looks first and opens then what it has looked at: already opening a device may do something.
unique_fd open_judged(const char* path, size_t limit, bool trusted) {
    const unique_fd found(open(path, O_PATH | O_CLOEXEC | (trusted ? O_NOFOLLOW : 0)));
    struct stat info = {};
    if (!found || fstat(found.get(), &info) != 0) {
        return {};
    }
    int error = 0;
    if (!S_ISREG(info.st_mode)) {
        error = EINVAL;
    } else if (trusted && !is_only_ours(info)) {
        error = EPERM;
    } else if (info.st_size < 0 || static_cast<size_t>(info.st_size) > limit) {
        error = EFBIG;
    }
    if (error != 0) {
        errno = error;
        return {};
    }
    char same[FD_PATH_SIZE] = {};
    format_text(same, "/proc/self/fd/%d", found.get());
    // Its owner may hold a lease on it, which is not waited for either.
    return unique_fd(open(same, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
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

bool remove_at(int folder, const char* name, int depth);

// Of a folder that is no link, by its descriptor: its name may lead elsewhere the next moment.
void remove_content(int parent, const char* name, int depth) {
    constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    unique_fd file(openat(parent, name, flags));
    const folder_ptr folder(file && depth < MAX_DEPTH ? fdopendir(file.get()) : nullptr);
    if (!folder) {
        return;
    }
    const int inside = file.release();
    // Its owner, who may be in it, could add entries as fast as they go.
    if (fchown(inside, geteuid(), static_cast<gid_t>(-1)) != 0 || fchmod(inside, S_IRWXU) != 0) {
        return;
    }
    while (const dirent* entry = readdir(folder.get())) {
        const std::string_view one = entry->d_name;
        if (one != "." && one != "..") {
            (void)remove_at(inside, entry->d_name, depth + 1);  // shows at the folder's own end
        }
    }
}

bool remove_at(int folder, const char* name, int depth) {
    if (unlinkat(folder, name, 0) == 0) {
        return true;
    }
    if (errno != EISDIR && errno != EPERM) {
        return errno == ENOENT;
    }
    remove_content(folder, name, depth);
    return unlinkat(folder, name, AT_REMOVEDIR) == 0;
}

}  // namespace

unique_fd open_regular(const char* path, size_t limit) {
    return open_judged(path, limit, false);
}

file_ptr open_stream(const char* path, size_t limit) {
    unique_fd file = open_regular(path, limit);
    file_ptr stream(file ? fdopen(file.get(), "r") : nullptr);
    if (stream) {
        (void)file.release();
    }
    return stream;
}

unique_fd open_trusted(const char* path, size_t limit) {
    return open_judged(path, limit, true);
}

const char* why_unreadable(int error) {
    switch (error) {
        case EINVAL:
        case ELOOP:
            return "it is no regular file";
        case EFBIG:
            return "it is too long";
        case EPERM:
            return "others may have written it";
        default:
            return strerror(error);
    }
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

bool is_own_folder(const char* path) {
    struct stat info = {};
    return lstat(path, &info) == 0 && S_ISDIR(info.st_mode) &&
           (info.st_uid == 0 || info.st_uid == geteuid());
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

bool remove_whole(const char* path) {
    if (unlink(path) == 0 || errno == ENOENT) {
        return true;
    }
    // Moved first to where nobody else comes by its path, so that the name is free in any case.
    char aside[PATH_SIZE] = {};
    char inside[PATH_SIZE] = {};
    if (!format_text(aside, "%s.XXXXXX", path) || mkdtemp(aside) == nullptr) {
        return false;
    }
    format_text(inside, "%.*s/old", static_cast<int>(sizeof inside - sizeof "/old"), aside);
    const bool moved = rename(path, inside) == 0;
    const int error = errno;
    (void)remove_at(AT_FDCWD, aside, 0);  // what stays is in nobody's way
    errno = error;
    return moved;
}
