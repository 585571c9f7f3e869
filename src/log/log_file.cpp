// SPDX-License-Identifier: Apache-2.0
#include "log/log_file.h"

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>

#include "base/text.h"
#include "log/tb_log.h"

log_record log_records[LOG_FILES] = {};

namespace {

constexpr uint16_t DEFAULT_MAX_KB = 512;
constexpr uint8_t DEFAULT_BACKUPS = 1;
constexpr off_t KILOBYTE = 1024;
constexpr size_t COPY_NAME_SIZE = LOG_PATH_SIZE + 8;  // path and ".255" or ".bak"
constexpr int64_t HOLD_LIMIT = 250'000'000;           // nanoseconds
constexpr int64_t LINE_LIMIT = 20'000'000;
constexpr timespec PAUSE = {0, 100'000};

// This thread rotates a file: its lines about that must not wait for itself.
thread_local bool rotates_here = false;

int64_t monotonic_time() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * INT64_C(1'000'000'000) + now.tv_nsec;
}

// Tries until it comes true, for so many nanoseconds at most. False when it never did.
template <typename Attempt>
bool try_until(int64_t limit, Attempt attempt) {
    if (attempt()) {
        return true;
    }
    const int64_t end = monotonic_time() + limit;
    do {
        nanosleep(&PAUSE, nullptr);
        if (attempt()) {
            return true;
        }
    } while (monotonic_time() < end);
    return false;
}

void name_copy(const log_record& record, int number, char (&name)[COPY_NAME_SIZE]) {
    if (number == 0) {
        set_text(name, record.path);
    } else {
        format_text(name, "%s.%d", record.path, number);
    }
}

void shift_copies(const log_record& record) {
    for (int number = record.backups - 1; number >= 0; number--) {
        char from[COPY_NAME_SIZE] = {};
        char to[COPY_NAME_SIZE] = {};
        struct stat info = {};
        name_copy(record, number, from);
        name_copy(record, number + 1, to);
        if (stat(from, &info) == 0 && rename(from, to) != 0) {
            log_err("tb_log", 644, "fail to rename the file - %s to %s", from, to);
        }
    }
}

// A full disk costs the line. What it took of the line is taken back, or the next one would go on
// behind half of it.
void write_whole(FILE* file, std::string_view text) {
    const size_t count = fwrite(text.data(), 1, text.size(), file);  // unbuffered
    if (count != 0 && count < text.size()) {
        const off_t start = lseek(fileno(file), -static_cast<off_t>(count), SEEK_END);
        const bool gone = start >= 0 && ftruncate(fileno(file), start) == 0;
        (void)gone;  // half a line is all that can come of it
    }
}

void report_missed(log_record& record) {
    FILE* file = record.fp;
    if (file != nullptr && record.missed != 0) {
        (void)fprintf(file, "log miss events: %d\n", record.missed);
        record.missed = 0;
    }
}

}  // namespace

log_call::log_call() : errno_(errno) {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state_);
}

log_call::~log_call() {
    pthread_setcancelstate(cancel_state_, nullptr);
    errno = errno_;
}

record_hold::record_hold(log_record& record) : record_(record) {
    held_ = try_until(HOLD_LIMIT, [this] { return !record_.writing.exchange(true); });
}

record_hold::~record_hold() {
    if (held_) {
        record_.writing = false;
    }
}

void init_record(log_record& record, const char* path) {
    close_record(record);
    empty_queue(record.pending);
    set_log_path(record, path);
    record.max_kb = DEFAULT_MAX_KB;
    record.backups = DEFAULT_BACKUPS;
    record.force_file = 0;
    record.rotating = false;
    record.writing = false;
    record.missed = 0;
    record.dropped = 0;
    record.rotate_at_open = 1;
}

void set_log_path(log_record& record, const char* path) {
    if (!set_text(record.path, path)) {
        fputs("ERROR: log filename is too long", stdout);
        set_text(record.path, "");
    }
}

int find_log_size(const log_record& record, off_t* size) {
    struct stat info = {};
    FILE* file = record.fp;
    if (file != nullptr && fstat(fileno(file), &info) != 0) {
        return -1;
    }
    if (file == nullptr && stat(record.path, &info) != 0) {
        return -2;
    }
    *size = info.st_size;
    return 0;
}

void append_line(log_record& record, std::string_view text) {
    const auto begin = [&record] { return !record.rotating && !record.writing.exchange(true); };
    if (!(rotates_here ? begin() : try_until(LINE_LIMIT, begin))) {
        record.dropped += record.rotating ? 1U : 0U;
        return;
    }
    FILE* file = record.fp;
    if (file != nullptr) {
        write_whole(file, text);
    }
    check_rotation(record, false);  // opens again what could not be opened at the last rotation
    record.writing = false;
}

void open_record(log_record& record, const char* mode) {
    FILE* file = fopen(record.path, mode);
    if (file == nullptr) {
        return;
    }
    // Unbuffered, a line of any length is one write.
    (void)setvbuf(file, nullptr, _IONBF, 0);
    record.fp = file;
    record.descriptor = fileno(file);
}

void close_record(log_record& record) {
    record.descriptor = -1;
    FILE* file = record.fp.exchange(nullptr);
    if (file != nullptr) {
        (void)fclose(file);  // nothing is buffered in it
    }
}

void check_rotation(log_record& record, bool force) {
    if (record.rotating.exchange(true)) {
        return;
    }
    off_t size = 0;
    if (find_log_size(record, &size) == 0 && size != 0 &&
        (force || size >= record.max_kb * KILOBYTE)) {
        close_record(record);
        const bool outer = std::exchange(rotates_here, true);
        shift_copies(record);
        rotates_here = outer;
    }
    if (record.fp == nullptr) {
        open_record(record, "ae");
        report_missed(record);
    }
    record.rotating = false;
}

void start_record(log_record& record) {
    if (record.fp != nullptr) {
        return;
    }
    struct stat info = {};
    const bool is_message_log = strcmp(record.path, log_records[MESSAGE_LOG].path) == 0;
    if (record.rotate_at_open == 1 && stat(record.path, &info) == 0 && info.st_size >= 1 &&
        !is_message_log) {
        char aside[COPY_NAME_SIZE] = {};
        format_text(aside, "%s.bak", record.path);
        (void)rename(record.path, aside);  // if it stays, the rotation below sets it aside
    }
    check_rotation(record, record.rotate_at_open == 1);
}

void empty_queue(log_queue& queue) {
    while (queue.head != nullptr) {
        log_entry* entry = queue.head;
        queue.head = entry->next;
        free(entry->text);
        free(entry);
    }
    queue = {};
}
