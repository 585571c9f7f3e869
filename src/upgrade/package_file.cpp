// SPDX-License-Identifier: Apache-2.0
#include "upgrade/package_file.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

#include "base/file.h"
#include "base/name.h"
#include "base/text.h"
#include "log/tb_log.h"

namespace {

constexpr mode_t FOLDER_MODE = S_IRWXU | S_IRGRP | S_IXGRP | S_IROTH | S_IXOTH;
constexpr mode_t WRITABLE_BY_OTHERS = S_IWGRP | S_IWOTH;

constexpr mode_t PRIVATE_MODE = S_IRWXU;
constexpr int MAX_ATTEMPTS = 5;  // to have a name that somebody else takes again and again

bool is_ours(const struct stat& info) {
    return info.st_uid == 0 || info.st_uid == geteuid();
}

// Anybody may give a link of root's a second name, where the kernel lets him.
bool is_second_name(const struct stat& info) {
    return S_ISLNK(info.st_mode) && info.st_nlink != 1;
}

// Somebody else's file, folder or link in the way of ours.
bool is_foreign(const char* path) {
    struct stat info = {};
    return lstat(path, &info) == 0 && (!is_ours(info) || is_second_name(info));
}

// One that is there stays, unless it is somebody else's. False with errno.
bool make_folder(const char* path) {
    mode_t mode = FOLDER_MODE;
    for (int i = 0; i < MAX_ATTEMPTS && is_foreign(path); i++) {
        log_err("own_folder", __LINE__, "%s is somebody else's, make it anew", path);
        mode = PRIVATE_MODE;
        if (remove_whole(path) && mkdir(path, mode) == 0) {
            return true;
        }
    }
    return mkdir(path, mode) == 0 || errno == EEXIST;
}

bool keep_others_out(const char* path) {
    struct stat info = {};
    // A link of our own may lead elsewhere, to a larger disk.
    if (lstat(path, &info) != 0 || info.st_uid != geteuid() || is_second_name(info)) {
        return false;
    }
    const unique_fd folder(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder || fstat(folder.get(), &info) != 0 || info.st_uid != geteuid()) {
        return false;
    }
    return (info.st_mode & WRITABLE_BY_OTHERS) == 0 ||
           fchmod(folder.get(), info.st_mode & ~(S_IFMT | WRITABLE_BY_OTHERS)) == 0;
}

// The kernel grants a read lease only while nobody has the file open for writing. File systems
// without leases cannot tell.
bool has_no_writer(int file) {
    // Whoever opens it for writing at this very moment sends a signal: SIGIO would end the process.
    (void)fcntl(file, F_SETSIG, SIGURG);
    if (fcntl(file, F_SETLEASE, F_RDLCK) != 0) {
        return errno != EAGAIN;
    }
    return fcntl(file, F_SETLEASE, F_UNLCK) == 0;
}

}  // namespace

bool package_path(const char* version_name, char (*out)[PACKAGE_PATH_SIZE]) {
    (*out)[0] = '\0';
    return version_name != nullptr && is_file_name(version_name) &&
           format_text(*out, "%s%s", DOWNLOAD_FOLDER, version_name);
}

bool own_folder(const char* path) {
    const std::string plain(path, std::string_view(path).find_last_not_of('/') + 1);
    if (!make_folder(plain.c_str())) {
        log_err(__func__, __LINE__, "folder %s can't be made: %s", path, strerror(errno));
        return false;
    }
    const bool ours = keep_others_out(plain.c_str());
    if (!ours) {
        log_err(__func__, __LINE__, "%s is not a folder of ours alone, refuse it", path);
    }
    return ours;
}

void drop_foreign(const char* path) {
    struct stat info = {};
    if (lstat(path, &info) != 0 || (is_ours(info) && !S_ISLNK(info.st_mode))) {
        return;
    }
    log_err(__func__, __LINE__, "%s is %s, remove it", path,
            S_ISLNK(info.st_mode) ? "a link" : "somebody else's");
    if (!remove_whole(path)) {
        log_err(__func__, __LINE__, "%s can't be removed: %s", path, strerror(errno));
    }
}

unique_fd take_package(const char* path) {
    unique_fd package(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat info = {};
    if (!package || fstat(package.get(), &info) != 0) {
        log_err(__func__, __LINE__, "package %s can't be opened: %s", path, strerror(errno));
        (void)unlink(path);
        return {};
    }
    if (!S_ISREG(info.st_mode) || info.st_uid != geteuid() ||
        (info.st_mode & WRITABLE_BY_OTHERS) != 0 || !has_no_writer(package.get())) {
        log_err(__func__, __LINE__, "package %s may still change, refuse it", path);
        (void)unlink(path);
        return {};
    }
    return package;
}

void remove_package(int package, const char* path) {
    struct stat ours = {};
    struct stat named = {};
    if (fstat(package, &ours) == 0 && lstat(path, &named) == 0 && ours.st_dev == named.st_dev &&
        ours.st_ino == named.st_ino) {
        (void)unlink(path);  // one that stays is removed by the next download
    }
}
