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

#include "base/text.h"
#include "log/tb_log.h"

namespace {

constexpr mode_t FOLDER_MODE = S_IRWXU | S_IRGRP | S_IXGRP | S_IROTH | S_IXOTH;
constexpr mode_t WRITABLE_BY_OTHERS = S_IWGRP | S_IWOTH;

bool keep_others_out(const char* path) {
    struct stat info = {};
    // A link of our own may lead elsewhere, to a larger disk.
    if (lstat(path, &info) != 0 || info.st_uid != geteuid()) {
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
    if (is_empty(version_name) || strchr(version_name, '/') != nullptr ||
        strcmp(version_name, ".") == 0 || strcmp(version_name, "..") == 0) {
        return false;
    }
    if (!format_text(*out, "%s%s", DOWNLOAD_FOLDER, version_name)) {
        (*out)[0] = '\0';
        return false;
    }
    return true;
}

bool own_folder(const char* path) {
    const std::string plain(path, std::string_view(path).find_last_not_of('/') + 1);
    if (mkdir(plain.c_str(), FOLDER_MODE) != 0 && errno != EEXIST) {
        log_err(__func__, __LINE__, "folder %s can't be made: %s", path, strerror(errno));
        return false;
    }
    const bool ours = keep_others_out(plain.c_str());
    if (!ours) {
        log_err(__func__, __LINE__, "%s is not a folder of ours alone, refuse it", path);
    }
    return ours;
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
