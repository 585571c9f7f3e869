// SPDX-License-Identifier: Apache-2.0
#include "log/tb_log.h"

#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "base/file.h"
#include "log/log_file.h"
#include "log/log_line.h"

namespace {

constexpr struct {
    const char* name;    // as the dump shows it
    const char* prefix;  // before the function name
} components[] = {
    {"SYSTEM    ", "SYSTEM:"},      {"FUNCTION  ", ""},
    {"CALL      ", "CALL:"},        {"API      ", "API:"},
    {"SERVICE       ", "SERVICE:"}, {"AGENT       ", ""},  // named only; no component 5 is accepted
};

constexpr const char* log_paths[LOG_FILES] = {
    "/var/log/plugin_debug.log",
    "/var/log/plugin_err.log",
    "/var/log/plugin_msg.log",
};

constexpr const char* output_names[] = {"NONE", "FILE", "SCREEN", "INTERNAL"};
constexpr uint8_t DEFAULT_LEVEL = 3;
constexpr int MAX_DECIMAL_CODE = 256;  // exit codes above it are shown in hexadecimal

std::atomic<uint8_t> output_mode = LOG_TO_NONE;
std::atomic<uint8_t> levels[LOG_COMPONENTS] = {};

bool is_component(int component) {
    return component >= 0 && component < LOG_COMPONENTS;
}

int check_filter(int component, int level) {
    if (!is_component(component)) {
        return -1;
    }
    return level <= levels[component] ? 0 : -2;
}

bool goes_to_file(const log_record& record, int mode) {
    return mode == LOG_TO_FILE || (record.force_file == 1 && record.fp != nullptr);
}

__attribute__((format(printf, 3, 0))) int write_line(log_record& record, const line_origin& origin,
                                                     const char* format, va_list args) {
    const log_call call;
    const int mode = output_mode;
    const bool to_file = goes_to_file(record, mode);
    if (mode == LOG_TO_NONE) {
        return -1;
    }
    if (!to_file && mode != LOG_TO_SCREEN) {
        return 0;
    }
    log_line line;
    update_local_time();
    begin_line(line, origin);
    add_format_v(line, format, args);
    const std::string_view text = end_line(line);
    if (to_file) {
        append_line(record, text);
    } else {
        (void)fwrite(text.data(), 1, text.size(), stdout);
        (void)fflush(stdout);
    }
    return 0;
}

}  // namespace

void log_init() {
    init_local_time();
    for (int file = 0; file < LOG_FILES; file++) {
        init_record(log_records[file], log_paths[file]);
    }
    for (std::atomic<uint8_t>& level : levels) {
        level = DEFAULT_LEVEL;
    }
    output_mode = LOG_TO_SCREEN;
}

int log_set_output(int mode) {
    const log_call call;
    const uint8_t wanted = static_cast<uint8_t>(mode);
    if (wanted == output_mode) {
        return 0;
    }
    if (wanted == LOG_TO_FILE) {  // before the switch, so that no line meets a closed file
        for (log_record& record : log_records) {
            if (const record_hold hold(record); hold) {
                start_record(record);
            }
        }
    }
    if (output_mode.exchange(wanted) == LOG_TO_FILE) {
        for (log_record& record : log_records) {
            if (const record_hold hold(record); hold) {
                close_record(record);
            }
        }
    }
    return wanted == LOG_TO_FILE ? 1 : 0;
}

int log_set_level(int component, int level) {
    if (!is_component(component)) {
        return -1;
    }
    levels[component] = static_cast<uint8_t>(level);
    return 0;
}

int log_get_level(int component) {
    return is_component(component) ? levels[component].load() : -1;
}

void log_join() {
    log_init();
    for (log_record& record : log_records) {
        record.rotate_at_open = 0;
        record.max_kb = UINT16_MAX;
    }
    (void)log_set_output(LOG_TO_FILE);
}

bool log_shows_secrets() {
    return log_get_level(LOG_SERVICE) >= LEVEL_DEBUG;
}

int log_dump() {
    int mode = output_mode;
    if (mode > LOG_TO_SCREEN) {
        output_mode = LOG_TO_NONE;
        mode = LOG_TO_NONE;
    }
    printf(" >>> log type - %s\n", output_names[mode]);
    for (int component = 0; component < LOG_COMPONENTS; component++) {
        printf("     component[%s] - level = %i\n", components[component].name,
               levels[component].load());
    }
    return 0;
}

void log_close() {
    const log_call call;
    for (log_record& record : log_records) {
        if (const record_hold hold(record); hold) {
            close_record(record);
            empty_queue(record.pending);
        }
    }
}

int log_msg(int component, int level, const char* function, int line, const char* format, ...) {
    int result = check_filter(component, level);
    if (result != 0) {
        return result;
    }
    va_list args;
    va_start(args, format);
    result = write_line(log_records[DEBUG_LOG], {components[component].prefix, function, line},
                        format, args);
    va_end(args);
    return result;
}

int log_secret(int component, int level, const char* function, int line, std::string_view text) {
    return log_shows_secrets()
               ? log_msg(component, level, function, line, "%.*s", static_cast<int>(text.size()),
                         text.data())
               : log_msg(component, level, function, line, "length %zu", text.size());
}

int log_plain(int component, int level, const char* format, ...) {
    int result = check_filter(component, level);
    if (result != 0) {
        return result;
    }
    va_list args;
    va_start(args, format);
    result =
        write_line(log_records[DEBUG_LOG], {.prefix = components[component].prefix}, format, args);
    va_end(args);
    return result;
}

int log_err(const char* function, int line, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int result = log_err_v(function, line, format, args);
    va_end(args);
    if (output_mode == LOG_TO_FILE) {
        const line_origin origin = {.function = function, .line = line, .tag = "ERROR:"};
        va_start(args, format);
        (void)write_line(log_records[DEBUG_LOG], origin, format, args);  // a copy may get lost
        va_end(args);
    }
    return result;
}

int log_err_v(const char* function, int line, const char* format, va_list args) {
    return write_line(log_records[ERROR_LOG], {.function = function, .line = line}, format, args);
}

void log_unreadable(const char* function, int line, const char* path) {
    const int error = errno;
    if (error != 0 && error != ENOENT) {
        (void)log_err(function, line, "%s is not read: %s", path, why_unreadable(error));
    }
}

int log_trace(const char* function, int line, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int result =
        write_line(log_records[DEBUG_LOG], {.function = function, .line = line}, format, args);
    va_end(args);
    return result;
}

int log_event(const char* format, ...) {
    if (levels[LOG_SERVICE] == 0) {
        return -1;
    }
    va_list args;
    va_start(args, format);
    const int result = write_line(log_records[MESSAGE_LOG], {}, format, args);
    va_end(args);
    return result;
}

void log_enter(const char* function) {
    if (levels[LOG_FUNCTION] != 0) {
        (void)log_trace(function, 0, "enter");  // logging never fails its caller
    }
}

void log_exit(const char* function, int code) {
    if (levels[LOG_FUNCTION] == 0) {
        return;
    }
    if (code <= MAX_DECIMAL_CODE) {
        (void)log_trace(function, 0, "exit(%d)", code);
    } else {
        (void)log_trace(function, 0, "exit(0x%X)", static_cast<unsigned>(code));
    }
}

void log_from_signal(int line, const char* message) {
    const int saved_errno = errno;
    const int mode = output_mode;
    const log_record& record = log_records[DEBUG_LOG];
    log_line text;
    begin_line(text, {.prefix = components[LOG_SYSTEM].prefix, .line = line});
    add_text(text, message);
    const std::string_view whole = end_line(text);
    int descriptor = -1;  // looked up last: another thread may be exchanging the file
    if (goes_to_file(record, mode)) {
        descriptor = record.descriptor;
    } else if (mode == LOG_TO_SCREEN) {
        descriptor = STDOUT_FILENO;
    }
    if (mode != LOG_TO_NONE && descriptor >= 0) {
        const ssize_t count = write(descriptor, whole.data(), whole.size());
        (void)count;  // nothing can be done about a lost line here
    }
    errno = saved_errno;
}
