// SPDX-License-Identifier: Apache-2.0
#include "log/log_line.h"

#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "base/text.h"

namespace {

constexpr int NUMBER_SIZE = 24;  // any 64-bit number in decimal
constexpr long NANOSECONDS_IN_MICROSECOND = 1000;

std::atomic<long> utc_offset = 0;     // seconds, east positive
std::atomic<pid_t> offset_owner = 0;  // the process that looks the offset up
std::atomic<time_t> looked_up_at = -1;

// Like "%0*ld"; printf itself may take locks.
void add_number(log_line& line, long value, size_t width) {
    char digits[NUMBER_SIZE] = {};
    const std::to_chars_result end = std::to_chars(digits, digits + sizeof digits, value);
    const std::string_view number(digits, static_cast<size_t>(end.ptr - digits));
    for (size_t filled = number.size(); filled < width; filled++) {
        add_text(line, "0");
    }
    add_text(line, number);
}

void add_stamp(log_line& line) {
    using namespace std::chrono;
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    const sys_seconds local{seconds{now.tv_sec + utc_offset.load()}};
    const sys_days midnight = floor<days>(local);
    const year_month_day date{midnight};
    const hh_mm_ss time{local - midnight};
    const struct {
        const char* before;
        long value;
        size_t width;
    } fields[] = {
        {"[", static_cast<long>(static_cast<unsigned>(date.month())), 2},
        {"/", static_cast<long>(static_cast<unsigned>(date.day())), 2},
        {" ", static_cast<long>(time.hours().count()), 2},
        {":", static_cast<long>(time.minutes().count()), 2},
        {":", static_cast<long>(time.seconds().count()), 2},
        {".", now.tv_nsec / NANOSECONDS_IN_MICROSECOND, 6},
    };
    for (const auto& field : fields) {
        add_text(line, field.before);
        add_number(line, field.value, field.width);
    }
    add_text(line, "]");
}

void add_name(log_line& line, const line_origin& origin) {
    if (!is_empty(origin.prefix)) {
        add_text(line, origin.prefix);
        add_text(line, is_empty(origin.function) ? "" : " ");
    }
    if (!is_empty(origin.function)) {
        const char* slash = strrchr(origin.function, '/');
        add_text(line, slash == nullptr ? origin.function : slash + 1);
    }
}

}  // namespace

void init_local_time() {
    offset_owner = getpid();
    looked_up_at = -1;
    update_local_time();
}

// tzset() reads the zone's file again when that has changed; localtime_r() alone never does.
void update_local_time() {
    tm local = {};
    const time_t now = time(nullptr);
    if (offset_owner != getpid() || looked_up_at.exchange(now) == now) {
        return;
    }
    tzset();
    if (localtime_r(&now, &local) != nullptr) {
        utc_offset = local.tm_gmtoff;
    }
}

void begin_line(log_line& line, const line_origin& origin) {
    add_stamp(line);
    if (is_empty(origin.prefix) && is_empty(origin.function)) {
        return;
    }
    add_text(line, " ");
    add_name(line, origin);
    add_text(line, "(");
    if (origin.line != 0) {
        add_number(line, origin.line, 0);
    }
    add_text(line, ") - ");
    add_text(line, origin.tag);
}

void add_text(log_line& line, std::string_view text) {
    const size_t length = std::min(text.size(), LOG_LINE_SIZE - 1 - line.used);
    std::copy_n(text.data(), length, line.text + line.used);
    line.used += length;
}

void add_format_v(log_line& line, const char* format, va_list args) {
    const size_t room = LOG_LINE_SIZE - line.used;  // the terminator's byte becomes the newline
    const int length = vsnprintf(line.text + line.used, room, format, args);
    if (length > 0) {
        line.used += std::min(static_cast<size_t>(length), room - 1);
    }
}

std::string_view end_line(log_line& line) {
    line.text[line.used++] = '\n';
    return {line.text, line.used};
}
