// SPDX-License-Identifier: Apache-2.0
#include "secret.h"

#include <termios.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "answers.h"
#include "base/handles.h"
#include "interrupt.h"

namespace {

constexpr size_t LINE_SIZE = 1025;  // line end and terminator included

// No echo on a terminal until the end of its life.
class quiet_terminal {
  public:
    explicit quiet_terminal(int fd) : fd_(fd), known_(tcgetattr(fd, &before_) == 0) {
        termios quiet = before_;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        quiet.c_lflag |= ECHONL;
        if (known_) {
            (void)tcsetattr(fd_, TCSAFLUSH, &quiet);  // worst case: it is seen
        }
    }
    ~quiet_terminal() {
        if (known_) {
            (void)tcsetattr(fd_, TCSAFLUSH, &before_);
        }
    }
    quiet_terminal(const quiet_terminal&) = delete;
    quiet_terminal& operator=(const quiet_terminal&) = delete;

  private:
    int fd_;
    termios before_ = {};
    bool known_;
};

// The first line of a stream without its end; false, told, when it is too long.
bool read_line(const char* what, FILE* stream, std::string* out) {
    char line[LINE_SIZE] = {};
    if (fgets(line, sizeof line, stream) == nullptr) {
        line[0] = '\0';
    }
    std::string_view text(line);
    const bool whole = text.size() + 1 < sizeof line || text.ends_with('\n');
    while (text.ends_with('\n') || text.ends_with('\r')) {
        text.remove_suffix(1);
    }
    *out = text;
    if (!whole) {
        complain("the %s is longer than any that pluginmgr takes", what);
    }
    return whole;
}

bool read_file(const char* what, const char* from, std::string* out) {
    if (std::string_view(from) == "-") {
        return read_line(what, stdin, out);
    }
    const file_ptr file(fopen(from, "re"));
    if (!file) {
        complain("%s: %s", from, strerror(errno));
        return false;
    }
    return read_line(what, file.get(), out);
}

bool read_terminal(const char* what, std::string* out) {
    const hold_signals held;
    const file_ptr terminal(fopen("/dev/tty", "r+e"));
    if (!terminal) {
        complain("no terminal to ask for the %s; --from FILE takes it from a file", what);
        return false;
    }
    const quiet_terminal quiet(fileno(terminal.get()));
    (void)fprintf(terminal.get(), "%s (not shown): ", what);
    (void)fflush(terminal.get());
    return read_line(what, terminal.get(), out) && !was_interrupted();
}

}  // namespace

bool read_secret(const char* what, const char* from, std::string* out) {
    return from == nullptr ? read_terminal(what, out) : read_file(what, from, out);
}
