// SPDX-License-Identifier: Apache-2.0
// The daemon's log: three text files of at most 512 KB with one rotated copy each, filtered by
// component and level. Owns /var/log/plugin_debug.log, plugin_err.log and plugin_msg.log, the
// level of each component and the output mode. Any thread may log; a line that meets a busy
// record is dropped rather than waited for, so logging can neither fail nor dead-lock its caller.
// Results: 0 written, -1 refused (mode NONE, no such component), -2 filtered by its level.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string_view>

// Components, each with a level of its own.
constexpr int LOG_SYSTEM = 0;
constexpr int LOG_FUNCTION = 1;  // no prefix before the function name
constexpr int LOG_CALL = 2;
constexpr int LOG_API = 3;
constexpr int LOG_SERVICE = 4;
constexpr int LOG_COMPONENTS = 5;

// Levels of lines; a component shows those up to its own. 1 is the default.
constexpr int LEVEL_ALWAYS = 0;    // changes of state and settings
constexpr int LEVEL_NOTICE = 1;    // what happens
constexpr int LEVEL_WARNING = 2;   // what looks wrong
constexpr int LEVEL_PROGRESS = 3;  // what happens to connections and answers
constexpr int LEVEL_DETAIL = 4;    // figures behind a decision
constexpr int LEVEL_TRACE = 5;     // requests, answers and single reads
constexpr int LEVEL_DEBUG = 7;     // whole texts, and what is secret

// Output modes.
constexpr int LOG_TO_NONE = 0;
constexpr int LOG_TO_FILE = 1;
constexpr int LOG_TO_SCREEN = 2;
constexpr int LOG_TO_INTERNAL = 3;  // nowhere: nothing opens an output of this kind

// Before any other call: three closed records, all levels 3, output to the screen. Main thread.
void log_init();
// Switching to LOG_TO_FILE sets the previous run's files aside and opens new ones; switching away
// closes them. 1 when the new mode is LOG_TO_FILE, else 0 (0 also when nothing changed).
int log_set_output(int mode);
// Components 0 to 4; -1 for another.
int log_set_level(int component, int level);
int log_get_level(int component);
// Whether lines may hold passwords, tokens and keys: from LEVEL_DEBUG of LOG_SERVICE on. Others
// hold their length only, since the files are readable for everybody.
bool log_shows_secrets();
// Instead of log_init and log_set_output, in a process beside the daemon: lines go behind what the
// files hold, and the daemon alone sets them aside.
void log_join();
// Prints mode and levels to standard output. A mode above 2 is first reset to 0.
int log_dump();
// Closes the three files. Main thread, at the end.
void log_close();

// To the debug log. function may be null; its text up to the last '/' is not shown. line 0 shows
// no line number.
int log_msg(int component, int level, const char* function, int line, const char* format, ...)
    __attribute__((format(printf, 5, 6)));
// A text that holds secrets, or "length N" in its place.
int log_secret(int component, int level, const char* function, int line, std::string_view text);
// The same without a function name.
int log_plain(int component, int level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
// To the error log, never filtered; in mode LOG_TO_FILE also to the debug log, tagged "ERROR:".
int log_err(const char* function, int line, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
int log_err_v(const char* function, int line, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));
// One such line for a file that is there but was not read, by errno as base/file left it; none for
// a missing one.
void log_unreadable(const char* function, int line, const char* path);
// To the debug log, never filtered, without a component's prefix.
int log_trace(const char* function, int line, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
// To the message log, without name or line; only while component 4 has a level (else -1).
int log_event(const char* format, ...) __attribute__((format(printf, 1, 2)));
// "enter" and "exit(code)" of a function; only while component 1 has a level.
void log_enter(const char* function);
void log_exit(const char* function, int code);

// One line of component SYSTEM at level 0 without function name, from a signal handler: message
// is written as it stands, with one write and no lock. Async-signal-safe.
void log_from_signal(int line, const char* message);

// Appends formatted text at cursor and lowers *left by its length; when it is longer than *left,
// appends nothing and logs an error. Terminates when a byte is left for it. Text longer than 1499
// bytes is cut. Returns the new cursor.
char* mysprintf(char* cursor, size_t* left, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Fills buffer (size bytes) with the end of a log for the web interface. which: 10 message log
// with clearing, 12 error log with clearing, 2 error log, anything else message log. The number
// of lines taken, 0 after clearing, -1 or -2 when the file's size cannot be had.
int read_log_tail(char* buffer, size_t size, int which);
