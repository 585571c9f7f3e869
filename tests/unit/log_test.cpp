// SPDX-License-Identifier: Apache-2.0
// The log calls, on three files in a temporary folder: line format, filters, rotation, marks, the
// line of the signal handler, and what the web interface reads.
#include "log/tb_log.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <sstream>
#include <thread>
#include <tuple>

#include "base/text.h"
#include "log/log_file.h"
#include "log/log_line.h"
#include "scratch.h"

namespace {

// A log's text with @ for each good stamp.
std::string unstamped(std::string text) {
    const std::string stamp = "[00/00 00:00:00.000000]";
    for (size_t at = 0; (at = text.find('[', at)) != std::string::npos; at++) {
        std::string shape = text.substr(at, stamp.size());
        std::ranges::replace_if(
            shape, [](char c) { return c >= '0' && c <= '9'; }, '0');
        text.replace(at, shape == stamp ? stamp.size() : 1, shape == stamp ? "@" : "[");
    }
    return text;
}

class Log : public scratch {
  protected:
    Log() {
        log_init();
        for (int file = 0; file < LOG_FILES; file++) {
            set_log_path(log_records[file], path(file).c_str());
        }
    }
    ~Log() override {
        log_close();
        log_init();
    }
    std::string path(int file, const std::string& suffix = "") {
        return in(std::to_string(file) + suffix);
    }
    std::string lines(int file, const std::string& suffix = "") {
        return unstamped(read_file(path(file, suffix)));
    }
};

TEST_F(Log, LineFormatAndFilters) {
    ASSERT_EQ(log_set_output(LOG_TO_FILE), 1);
    EXPECT_EQ(log_set_output(LOG_TO_FILE), 0) << "unchanged";
    EXPECT_EQ(log_msg(LOG_SYSTEM, 3, "main", 12, "a %d", 1), 0);
    log_msg(LOG_FUNCTION, 0, "src/dir/file.c", 7, "b");
    log_msg(LOG_CALL, 0, "f", 0, "c");
    log_msg(LOG_API, 0, nullptr, 24, "d");
    log_msg(LOG_FUNCTION, 0, nullptr, 9, "e");
    log_plain(LOG_SERVICE, 0, "f");
    log_from_signal(247, " g");
    log_trace("t", 5, "h\n");
    log_enter("in");
    for (const int code : {256, 257, -1}) {
        log_exit("out", code);
    }
    log_err("x/bad", 44, "went %s", "wrong");
    EXPECT_EQ(log_event("event %d", 2), 0);
    EXPECT_EQ(log_plain(LOG_CALL, 4, "above its level"), -2);
    EXPECT_EQ(log_set_level(LOG_COMPONENTS, 4), -1);
    EXPECT_EQ(log_plain(LOG_COMPONENTS, 0, "of no component"), -1);
    log_set_level(LOG_FUNCTION, 0);
    log_enter("unseen");
    log_exit("unseen", 0);
    log_set_level(LOG_SERVICE, 0);
    EXPECT_EQ(log_event("unseen"), -1);
    EXPECT_EQ(
        lines(DEBUG_LOG),
        "@ SYSTEM: main(12) - a 1\n@ file.c(7) - b\n@ CALL: f() - c\n@ API:(24) - d\n@e\n"
        "@ SERVICE:() - f\n@ SYSTEM:(247) -  g\n@ t(5) - h\n\n@ in() - enter\n@ out() - exit(256)\n"
        "@ out() - exit(0x101)\n@ out() - exit(-1)\n@ bad(44) - ERROR:went wrong\n");
    EXPECT_EQ(lines(ERROR_LOG) + lines(MESSAGE_LOG), "@ bad(44) - went wrong\n@event 2\n");
}

TEST_F(Log, OutputModes) {
    testing::internal::CaptureStdout();
    log_err("f", 1, "screen");
    log_from_signal(2, "signal");
    log_records[ERROR_LOG].force_file = 1;
    check_rotation(log_records[ERROR_LOG], false);
    log_err("f", 3, "forced");
    EXPECT_EQ(log_set_output(LOG_TO_INTERNAL), 0);
    EXPECT_EQ(log_plain(LOG_SYSTEM, 0, "lost"), 0);
    log_dump();  // falls back to NONE
    EXPECT_EQ(log_err("f", 1, "lost"), -1);
    EXPECT_EQ(unstamped(testing::internal::GetCapturedStdout()),
              "@ f(1) - screen\n@ SYSTEM:(2) - signal\n >>> log type - NONE\n"
              "     component[SYSTEM    ] - level = 3\n     component[FUNCTION  ] - level = 3\n"
              "     component[CALL      ] - level = 3\n     component[API      ] - level = 3\n"
              "     component[SERVICE       ] - level = 3\n");
    EXPECT_EQ(lines(ERROR_LOG) + lines(DEBUG_LOG), "@ f(3) - forced\n");
}

TEST_F(Log, LongTextsAreCut) {
    log_set_output(LOG_TO_FILE);
    const std::string status(4096, 's');
    log_plain(LOG_FUNCTION, 0, "%s", status.c_str());
    log_plain(LOG_FUNCTION, 0, "%s", std::string(3 * LOG_LINE_SIZE, 'x').c_str());
    log_plain(LOG_FUNCTION, 0, "next");
    constexpr size_t STAMP = sizeof "[01/01 00:00:00.000000]" - 1;
    EXPECT_EQ(lines(DEBUG_LOG),
              "@" + status + "\n@" + std::string(LOG_LINE_SIZE - 1 - STAMP, 'x') + "\n@next\n");
}

std::string minute(time_t of) {
    char stamp[32] = {};
    tm parts = {};
    strftime(stamp, sizeof stamp, "[%m/%d %H:%M:", gmtime_r(&of, &parts));
    return stamp;
}

TEST_F(Log, LocalTimeInBothKindsOfLine) {
    setenv("TZ", "TST-9:30", 1);
    log_init();
    testing::internal::CaptureStdout();
    log_plain(LOG_SYSTEM, 0, "line");
    log_from_signal(0, "line");
    std::istringstream text(testing::internal::GetCapturedStdout());
    unsetenv("TZ");
    const time_t east = time(nullptr) + 34200;
    int count = 0;
    for (std::string line; std::getline(text, line); count++) {
        EXPECT_TRUE(line.starts_with(minute(east)) || line.starts_with(minute(east - 5))) << line;
    }
    EXPECT_EQ(count, 2);
}

TEST_F(Log, RotatesAtTheLimitAndShiftsCopies) {
    log_set_output(LOG_TO_FILE);
    log_record& record = log_records[DEBUG_LOG];
    record.backups = 2;
    const size_t limit = 524288;
    append_line(record, std::string(limit - 1, 'a'));
    EXPECT_FALSE(std::filesystem::exists(path(DEBUG_LOG, ".1"))) << "one byte short";
    append_line(record, "a");
    EXPECT_EQ(std::filesystem::file_size(path(DEBUG_LOG, ".1")), limit);
    EXPECT_EQ(lines(DEBUG_LOG), "") << "no line about missed events";
    record.max_kb = 1;
    append_line(record, std::string(1024, 'b'));
    record.missed = 3;
    append_line(record, std::string(1024, 'c'));
    EXPECT_EQ(lines(DEBUG_LOG), "log miss events: 3\n");
    EXPECT_EQ(lines(DEBUG_LOG, ".1")[0], 'c');
    EXPECT_EQ(lines(DEBUG_LOG, ".2")[0], 'b');
    EXPECT_EQ(lines(DEBUG_LOG, ".3"), "");
}

TEST_F(Log, FailedRenameIsReportedOnceAndLoggingGoesOn) {
    log_set_output(LOG_TO_FILE);
    std::filesystem::create_directory(path(DEBUG_LOG, ".1"));
    log_records[DEBUG_LOG].max_kb = 0;
    log_trace("f", 1, "first");
    log_records[DEBUG_LOG].max_kb = 512;
    log_trace("f", 1, "second");
    EXPECT_EQ(lines(ERROR_LOG), "@ tb_log(644) - fail to rename the file - " + path(DEBUG_LOG) +
                                    " to " + path(DEBUG_LOG, ".1") + "\n");
    EXPECT_EQ(lines(DEBUG_LOG), "@ f(1) - first\n@ f(1) - second\n");
    EXPECT_EQ(log_records[DEBUG_LOG].dropped, 1U) << "the copy of the error met the rotation";
}

TEST_F(Log, BusyRecordsDropLines) {
    log_set_output(LOG_TO_FILE);
    log_record& record = log_records[DEBUG_LOG];
    record.rotating = true;
    EXPECT_EQ(log_trace("f", 1, "dropped"), 0);
    check_rotation(record, true);
    EXPECT_TRUE(record.rotating) << "somebody else's mark";
    record.rotating = false;
    record.writing = true;
    EXPECT_EQ(log_trace("f", 1, "skipped"), 0);
    EXPECT_EQ(record.dropped, 1U);
    record.writing = false;
    log_trace("f", 1, "written");
    EXPECT_EQ(lines(DEBUG_LOG), "@ f(1) - written\n");
}

// A machine that is busy elsewhere may keep a mark for longer than a line waits; hence the shares.
TEST_F(Log, LinesOfManyThreadsArrive) {
    log_set_output(LOG_TO_FILE);
    log_records[DEBUG_LOG].max_kb = 4;
    log_records[DEBUG_LOG].backups = 100;
    constexpr int LINES = 500;
    const auto work = [] {
        for (int line = 0; line < LINES; line++) {
            log_trace("worker", 1, "%060d", line);
        }
    };
    std::thread others[] = {std::thread(work), std::thread(work)};
    work();
    for (std::thread& other : others) {
        other.join();
    }
    long count = 0;
    for (const auto& file : std::filesystem::directory_iterator(folder)) {
        count += std::ranges::count(read_file(file.path().string()), '\n');
    }
    EXPECT_GE(count, 3 * LINES * 99 / 100);
}

TEST_F(Log, ALineWaitsForABusyRecord) {
    log_set_output(LOG_TO_FILE);
    log_record& record = log_records[DEBUG_LOG];
    for (std::atomic<bool>* mark : {&record.writing, &record.rotating}) {
        const auto before = lines(DEBUG_LOG);
        for (int attempt = 0; attempt < 10 && lines(DEBUG_LOG) == before; attempt++) {
            *mark = true;
            std::thread other([mark] {
                usleep(5000);
                *mark = false;
            });
            log_trace("f", 1, "waited");
            other.join();
        }
        EXPECT_EQ(lines(DEBUG_LOG), before + "@ f(1) - waited\n");
    }
}

TEST_F(Log, ThreadsAndTheirEndsLeaveWholeLinesAndNoMarks) {
    log_set_output(LOG_TO_FILE);
    log_records[DEBUG_LOG].max_kb = 1;
    log_records[DEBUG_LOG].backups = 100;
    const auto work = [](void*) -> void* {
        for (;;) {
            log_trace("worker", 1, "%060d", 0);
            pthread_testcancel();
        }
    };
    for (int round = 0; round < 30; round++) {
        pthread_t threads[3] = {};
        for (pthread_t& thread : threads) {
            ASSERT_EQ(pthread_create(&thread, nullptr, work, nullptr), 0);
        }
        usleep(200);
        log_set_output(LOG_TO_NONE);
        log_set_output(LOG_TO_FILE);
        for (const pthread_t thread : threads) {
            pthread_cancel(thread);
            pthread_join(thread, nullptr);
        }
        ASSERT_FALSE(log_records[DEBUG_LOG].writing || log_records[DEBUG_LOG].rotating);
    }
    const std::string line = "@ worker(1) - " + std::string(60, '0');
    for (const auto& file : std::filesystem::directory_iterator(folder)) {
        std::istringstream text(lines(DEBUG_LOG, file.path().extension()));
        for (std::string seen; std::getline(text, seen);) {
            EXPECT_EQ(seen, line);
        }
    }
}

TEST_F(Log, TailForTheWebInterface) {
    const auto breaks = [](size_t count) { return std::string(count, '\n'); };
    const std::string copy_end =
        " -------- end of file <" + path(ERROR_LOG, ".1") + "> -------\n\n";
    // Of the copy, of the log, room for, lines and text of the answer.
    const std::tuple<std::string, std::string, size_t, int, std::string> rows[] = {
        {"", "", 64, 0, "-- empty --\n"},
        {"copy\n", "new 1\nnew 2", 256, 3, "copy\n" + copy_end + "new 1\nnew 2\n"},
        {"copy\n", "new 1\nnew 2", 6, 1, "copy\n"},
        {"", std::string(256, 'x'), 512, 2, std::string(255, 'x') + "\nx\n"},
        {breaks(99), breaks(6490), 16384, 5010, breaks(10) + copy_end + breaks(5000)},
        {breaks(99), breaks(6500), 16384, 5000, breaks(5000)},
    };
    char text[16384] = {};
    EXPECT_EQ(read_log_tail(text, sizeof text, 2), -2) << "no file";
    log_set_output(LOG_TO_NONE);
    for (const auto& [copy, log, room, count, answer] : rows) {
        write_file(path(ERROR_LOG, ".1"), copy);
        write_file(path(ERROR_LOG), log);
        EXPECT_EQ(read_log_tail(text, room, 2), count);
        EXPECT_EQ(text, answer);
    }
    write_file(path(MESSAGE_LOG), "event\n");
    EXPECT_EQ(read_log_tail(text, sizeof text, 1), 1);
    EXPECT_STREQ(text, "event\n");
}

TEST_F(Log, TailOfAnOpenLogAndClearing) {
    char text[64] = {};
    log_set_output(LOG_TO_FILE);
    log_err("f", 1, "before");
    EXPECT_EQ(read_log_tail(text, 4, 2), 0);
    EXPECT_EQ(lines(ERROR_LOG),
              "@ f(1) - before\n@ mysprintf(75) - len=38, buf_size=3, str=@ f(1) - before\n\n"
              "@ mysprintf(75) - len=12, buf_size=3, str=-- empty --\n\n");
    EXPECT_EQ(read_log_tail(text, sizeof text, 12), 0);
    EXPECT_STREQ(text, " -- cleared -- \n");
    log_err("f", 1, "after");
    EXPECT_EQ(lines(ERROR_LOG), "@ f(1) - after\n");
}

}  // namespace
