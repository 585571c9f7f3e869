// SPDX-License-Identifier: Apache-2.0
#include "screen.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "base/text.h"
#include "words.h"

namespace {

constexpr size_t BAR_CELLS = 24;
constexpr const char* WIPE_LINE = "\r\x1b[K";

std::string bar(long long done, long long total) {
    char figures[96] = {};
    const double part =
        std::clamp(static_cast<double>(done) / static_cast<double>(total), 0.0, 1.0);
    const auto filled = static_cast<size_t>(part * BAR_CELLS);
    (void)format_text(figures, " %3d %%  %s of %s", static_cast<int>(part * 100),
                      size_words(done).c_str(), size_words(total).c_str());
    return "[" + std::string(filled, '#') + std::string(BAR_CELLS - filled, '.') + "]" + figures;
}

// The first cells of a text; a character is never cut in two.
std::string cut_to(const std::string& text, size_t width) {
    size_t bytes = text.size();
    while (cells(std::string_view(text).substr(0, bytes)) > width) {
        bytes--;
        while (bytes > 0 && (static_cast<unsigned char>(text[bytes]) & 0xc0U) == 0x80U) {
            bytes--;
        }
    }
    return text.substr(0, bytes);
}

}  // namespace

screen open_screen(bool quiet) {
    screen out;
    winsize size = {};
    out.quiet = quiet;
    out.terminal = isatty(STDOUT_FILENO) != 0;
    if (out.terminal && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        out.width = size.ws_col;
    }
    return out;
}

void show_state(screen* out, const std::string& line, long long done, long long total) {
    if (out->quiet) {
        return;
    }
    if (!out->terminal) {
        if (line != out->last_line) {
            out->last_line = line;
            printf("%s\n", line.c_str());
        }
    } else {
        const std::string motion =
            done >= 0 && total > 0 ? bar(done, total) : std::string(1, "|/-\\"[out->turn++ % 4]);
        printf("%s%s", WIPE_LINE, cut_to(line + "  " + motion, out->width - 1).c_str());
    }
    (void)fflush(stdout);  // a closed terminal shows at the last write
}

void show_line(screen* out, const std::string& line) {
    if (out->quiet) {
        return;
    }
    clear_screen_line(out);
    printf("%s\n", line.c_str());
    (void)fflush(stdout);
}

void clear_screen_line(screen* out) {
    if (!out->quiet && out->terminal) {
        printf("%s", WIPE_LINE);
        (void)fflush(stdout);
    }
}
