// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "base/file.h"
#include "base/handles.h"
#include "base/shell.h"
#include "base/text.h"
#include "log/log_file.h"
#include "log/tb_log.h"

namespace {

constexpr size_t SCRATCH_SIZE = 1500;
constexpr size_t PIECE_SIZE = 256;      // a longer line is shown as several
constexpr off_t TAIL_WITH_COPY = 6500;  // bytes wanted of the current file and its .1 copy
constexpr off_t TAIL_OF_FILE = 5000;    // bytes shown of the current file at most

// Numbers of the web interface.
constexpr int TAIL_ERRORS = 2;
constexpr int CLEAR_MESSAGES = 10;
constexpr int CLEAR_ERRORS = 12;

// Older names of the rotated copies, removed when their log is cleared.
void remove_old_copy(int which) {
    if (which == CLEAR_MESSAGES && access("/var/log/message.log.1", F_OK) == 0) {
        (void)run_shell("rm /var/log/message.log.1");  // the log is cleared all the same
    }
    if (which == CLEAR_ERRORS && access("/var/log/error.log.1", F_OK) == 0) {
        (void)run_shell("rm /var/log/error.log.1");
    }
}

struct tail_text {
    char* cursor;
    size_t left;
};

// Appends the lines in the last `length` bytes of a file (all of a shorter one); the number taken.
int take_lines(tail_text& out, const char* path, off_t length) {
    const file_ptr file = open_stream(path, SIZE_MAX);
    if (!file || fseeko(file.get(), 0, SEEK_END) != 0) {
        return 0;
    }
    const off_t size = ftello(file.get());
    off_t rest = std::min(size, length);
    if (rest <= 0 || fseeko(file.get(), size - rest, SEEK_SET) != 0) {
        return 0;
    }
    int lines = 0;
    char piece[PIECE_SIZE] = {};
    // Never past the size seen first: a line that does not fit logs an error, maybe to this file.
    while (rest > 0 && fgets(piece, sizeof piece, file.get()) != nullptr) {
        rest -= std::max<off_t>(static_cast<off_t>(strlen(piece)), 1);
        piece[strcspn(piece, "\n")] = '\0';
        const char* before = out.cursor;
        out.cursor = mysprintf(out.cursor, &out.left, "%s\n", piece);
        lines += out.cursor != before ? 1 : 0;
    }
    return lines;
}

int take_tail(tail_text& out, const log_record& record, off_t size) {
    int lines = 0;
    if (size < TAIL_WITH_COPY) {
        char copy[LOG_PATH_SIZE + 2] = {};
        format_text(copy, "%s.1", record.path);
        lines = take_lines(out, copy, TAIL_WITH_COPY - size);
        if (lines > 0) {
            out.cursor =
                mysprintf(out.cursor, &out.left, " -------- end of file <%s> -------\n\n", copy);
        }
    }
    lines += take_lines(out, record.path, TAIL_OF_FILE);
    if (lines == 0) {
        out.cursor = mysprintf(out.cursor, &out.left, "-- empty --\n");
    }
    return lines;
}

}  // namespace

char* mysprintf(char* cursor, size_t* left, const char* format, ...) {
    char text[SCRATCH_SIZE] = {};
    va_list args;
    va_start(args, format);
    (void)format_into_v(text, sizeof text, format, args);  // a long text is cut
    va_end(args);
    const size_t length = strlen(text);
    if (length > *left) {
        (void)log_err("mysprintf", 75, "len=%d, buf_size=%d, str=%s", static_cast<int>(length),
                      static_cast<int>(*left), text);
        return cursor;
    }
    std::copy_n(text, length, cursor);
    *left -= length;
    if (*left > 0) {
        cursor[length] = '\0';
    }
    return cursor + length;
}

int read_log_tail(char* buffer, size_t size, int which) {
    const log_call call;
    if (size == 0) {
        return 0;
    }
    tail_text out = {buffer, size - 1};
    buffer[0] = buffer[size - 1] = '\0';
    remove_old_copy(which);
    const bool errors = which == TAIL_ERRORS || which == CLEAR_ERRORS;
    log_record& record = log_records[errors ? ERROR_LOG : MESSAGE_LOG];
    off_t file_size = 0;
    {
        const record_hold hold(record);
        const int result = hold ? find_log_size(record, &file_size) : -1;
        if (result != 0) {
            return result;
        }
        if (which == CLEAR_MESSAGES || which == CLEAR_ERRORS) {
            close_record(record);
            open_record(record, "we");
            (void)mysprintf(out.cursor, &out.left, " -- cleared -- \n");
            return 0;
        }
    }
    return take_tail(out, record, file_size);
}
