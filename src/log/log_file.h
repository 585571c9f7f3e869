// SPDX-License-Identifier: Apache-2.0
// The three log files: their records, opening, rotation, and writing one line. No mutex: a
// record's stream belongs to whoever set its `writing` mark, `rotating` tells others that the file
// is being exchanged. Both are taken by exchange. A line waits for them, 20 ms at most, which no
// write to a file system in order takes.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string_view>

constexpr size_t LOG_PATH_SIZE = 128;

// Queued lines of a record. The daemon queues none; they are released at shutdown.
struct log_entry {
    log_entry* next = nullptr;
    char* text = nullptr;  // released with free()
};
struct log_queue {
    log_entry* head = nullptr;
    log_entry* tail = nullptr;
    int count = 0;
    bool busy = false;
};

struct log_record {
    char path[LOG_PATH_SIZE] = {};     // fixed before threads start
    std::atomic<FILE*> fp = nullptr;   // null while closed
    std::atomic<int> descriptor = -1;  // of fp, for the signal handler; -1 while closed
    log_queue pending = {};
    uint16_t max_kb = 0;     // the file is rotated at this size
    uint8_t backups = 0;     // rotated copies kept, path.1 the newest
    uint8_t force_file = 0;  // 1: to the file in every output mode but NONE
    std::atomic<bool> rotating = false;
    std::atomic<bool> writing = false;
    uint16_t missed = 0;                // nothing counts it up; reported all the same
    std::atomic<uint32_t> dropped = 0;  // lines that met a rotation
    uint8_t rotate_at_open = 0;         // 1: set the last run's file aside
};

enum log_file_id { DEBUG_LOG, ERROR_LOG, MESSAGE_LOG, LOG_FILES };
extern log_record log_records[LOG_FILES];

// Keeps the calling thread from being cancelled, and errno as it was, for as long as it lives: a
// cancelled thread would leave its marks set for ever.
class log_call {
  public:
    log_call();
    ~log_call();
    log_call(const log_call&) = delete;
    log_call& operator=(const log_call&) = delete;

  private:
    int cancel_state_ = 0;
    int errno_ = 0;
};

// Holds a record's `writing` mark, for work that is not one line. Waits up to a quarter of a second
// for a line that is being written; false when that did not end.
class record_hold {
  public:
    explicit record_hold(log_record& record);
    ~record_hold();
    record_hold(const record_hold&) = delete;
    record_hold& operator=(const record_hold&) = delete;
    explicit operator bool() const { return held_; }

  private:
    log_record& record_;
    bool held_ = false;
};

// A closed record with the default limits: 512 KB, one copy. Closes what was open.
void init_record(log_record& record, const char* path);
// A path of more than 127 bytes is refused with a word on standard output; the record's path is
// then empty and the record never opens.
void set_log_path(log_record& record, const char* path);

// Bytes in the file. 0, -1 when the open stream does not tell, -2 when the path does not.
[[nodiscard]] int find_log_size(const log_record& record, off_t* size);

// Writes one line (with its newline) by a single write, then looks whether the file is to be
// rotated. A record that is closed, or busy for 20 ms on end, gets nothing. Not for signal
// handlers.
void append_line(log_record& record, std::string_view text);

// With the `writing` mark held (or before threads start):
// Opens by the fopen mode, close-on-exec and unbuffered. A failure leaves the record closed.
void open_record(log_record& record, const char* mode);
void close_record(log_record& record);
// Renames a file that has reached its limit (any file with content when forced) to path.1, older
// copies up by one, and opens the record if it is closed.
void check_rotation(log_record& record, bool force);
// Sets the previous run's file aside (path.bak; the message log becomes path.1) and opens a new
// one. An open record is left alone.
void start_record(log_record& record);

// Releases the queued lines.
void empty_queue(log_queue& queue);
