// SPDX-License-Identifier: Apache-2.0
// The log calls, on three files in a temporary folder: line format, filters, rotation, marks, the
// line of the signal handler, and what the web interface reads.
#include "log/tb_log.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/text.h"
#include "log/log_file.h"
#include "log/log_line.h"

namespace {

std::string content(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

// The lines of a log without their stamps; a line without a good stamp stays as it is.
std::string unstamped(const std::string& text) {
    const std::string_view pattern = "[00/00 00:00:00.000000]";
    std::istringstream in(text);
    std::string out;
    for (std::string line; std::getline(in, line);) {
        std::string shape = line.substr(0, pattern.size());
        std::ranges::replace_if(
            shape, [](char c) { return c >= '0' && c <= '9'; }, '0');
        out += line.substr(shape == pattern ? pattern.size() : 0) + "\n";
    }
    return out;
}

class Log : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(mkdtemp(folder_), nullptr);
        log_init();
        const char* const names[LOG_FILES] = {"debug", "err", "msg"};
        for (int file = 0; file < LOG_FILES; file++) {
            paths_[file] = std::string(folder_) + "/" + names[file];
            set_log_path(log_records[file], paths_[file].c_str());
        }
    }
    void TearDown() override {
        log_close();
        log_init();
        std::filesystem::remove_all(folder_);
    }
    void put(int file, const std::string& suffix, const std::string& text) {
        std::ofstream(paths_[file] + suffix) << text;
    }
    std::string lines(int file) { return unstamped(content(paths_[file])); }

    char folder_[32] = "/tmp/log_test.XXXXXX";
    std::string paths_[LOG_FILES];
};

TEST_F(Log, LineFormat) {
    ASSERT_EQ(log_set_output(LOG_TO_FILE), 1);
    EXPECT_EQ(log_set_output(LOG_TO_FILE), 0) << "unchanged";
    EXPECT_EQ(log_msg(LOG_SYSTEM, 3, "main", 12, "a %d", 1), 0);
    log_msg(LOG_FUNCTION, 0, "src/dir/file.c", 7, "b");
    log_msg(LOG_CALL, 0, "f", 0, "c");
    log_msg(LOG_API, 0, nullptr, 247, " d");
    log_msg(LOG_FUNCTION, 0, nullptr, 9, "e");
    log_plain(LOG_SERVICE, 0, "f");
    log_plain(LOG_FUNCTION, 0, "g");
    log_trace("t", 5, "h\n");
    log_enter("in");
    log_exit("out", 256);
    log_exit("out", 257);
    log_exit("out", -1);
    log_err("x/bad", 44, "went %s", "wrong");
    EXPECT_EQ(log_event("event %d", 2), 0);
    log_set_level(LOG_FUNCTION, 0);
    log_enter("unseen");
    log_exit("unseen", 0);
    EXPECT_EQ(lines(DEBUG_LOG),
              " SYSTEM: main(12) - a 1\n file.c(7) - b\n CALL: f() - c\n API:(247) -  d\ne\n"
              " SERVICE:() - f\ng\n t(5) - h\n\n in() - enter\n out() - exit(256)\n"
              " out() - exit(0x101)\n out() - exit(-1)\n bad(44) - ERROR:went wrong\n");
    EXPECT_EQ(lines(ERROR_LOG), " bad(44) - went wrong\n");
    EXPECT_EQ(lines(MESSAGE_LOG), "event 2\n");
}

TEST_F(Log, FiltersByComponentAndLevel) {
    log_set_output(LOG_TO_FILE);
    EXPECT_EQ(log_msg(5, 0, "f", 1, "no"), -1);
    EXPECT_EQ(log_msg(-1, 0, "f", 1, "no"), -1);
    EXPECT_EQ(log_plain(5, 0, "no"), -1);
    EXPECT_EQ(log_msg(LOG_API, 4, "f", 1, "no"), -2);
    EXPECT_EQ(log_plain(LOG_API, 4, "no"), -2);
    EXPECT_EQ(log_set_level(LOG_API, 4), 0);
    EXPECT_EQ(log_set_level(5, 4), -1);
    EXPECT_EQ(log_plain(LOG_API, 4, "yes"), 0);
    log_set_level(LOG_SERVICE, 0);
    EXPECT_EQ(log_event("no"), -1);
    EXPECT_EQ(lines(DEBUG_LOG), " API:() - yes\n");
    EXPECT_EQ(lines(MESSAGE_LOG), "");
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
    EXPECT_EQ(log_plain(LOG_SYSTEM, 0, "lost"), -1);
    EXPECT_EQ(log_err("f", 1, "lost"), -1);
    const std::string screen = unstamped(testing::internal::GetCapturedStdout());
    const std::string dump =
        " >>> log type - NONE\n     component[SYSTEM    ] - level = 3\n"
        "     component[FUNCTION  ] - level = 3\n     component[CALL      ] - level = 3\n"
        "     component[API      ] - level = 3\n     component[SERVICE       ] - level = 3\n";
    EXPECT_EQ(screen, " f(1) - screen\n SYSTEM:(2) - signal\n" + dump);
    EXPECT_EQ(lines(ERROR_LOG), " f(3) - forced\n");
    EXPECT_FALSE(std::filesystem::exists(paths_[DEBUG_LOG]));
}

TEST_F(Log, PathTooLongIsRefused) {
    testing::internal::CaptureStdout();
    set_log_path(log_records[0], std::string(127, 'p').c_str());
    EXPECT_EQ(text_of(log_records[0].path).size(), 127U);
    set_log_path(log_records[0], std::string(128, 'p').c_str());
    EXPECT_STREQ(log_records[0].path, "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "ERROR: log filename is too long");
}

TEST_F(Log, LongLinesAreCutButEnded) {
    log_set_output(LOG_TO_FILE);
    const std::string status(4096, 's');
    log_plain(LOG_FUNCTION, 0, "%s", status.c_str());
    EXPECT_EQ(lines(DEBUG_LOG), status + "\n");
    log_plain(LOG_FUNCTION, 0, "%s", std::string(3 * LOG_LINE_SIZE, 'x').c_str());
    log_plain(LOG_FUNCTION, 0, "next");
    const std::string text = content(paths_[DEBUG_LOG]);
    const std::string second = text.substr(text.find('\n') + 1);
    EXPECT_EQ(second.find('\n'), LOG_LINE_SIZE - 1);
    EXPECT_TRUE(text.ends_with("]next\n"));
}

TEST_F(Log, LocalTimeInBothKindsOfLine) {
    constexpr long EAST = 34200;
    setenv("TZ", "TST-9:30", 1);
    log_init();
    testing::internal::CaptureStdout();
    const time_t first = time(nullptr) + EAST;
    log_plain(LOG_SYSTEM, 0, "line");
    log_from_signal(0, "line");
    const time_t last = time(nullptr) + EAST;
    const std::string text = testing::internal::GetCapturedStdout();
    unsetenv("TZ");
    EXPECT_EQ(unstamped(text), " SYSTEM:() - line\n SYSTEM:() - line\n");
    for (const size_t at : {size_t{0}, text.find('\n') + 1}) {
        char times[2][32] = {};
        tm parts = {};
        strftime(times[0], sizeof times[0], "[%m/%d %H:%M:%S.", gmtime_r(&first, &parts));
        strftime(times[1], sizeof times[1], "[%m/%d %H:%M:%S.", gmtime_r(&last, &parts));
        EXPECT_LE(times[0], text.substr(at, 16));
        EXPECT_GE(times[1], text.substr(at, 16));
    }
}

TEST_F(Log, PreviousRunIsSetAside) {
    for (int file = 0; file < LOG_FILES; file++) {
        put(file, "", "old\n");
        put(file, ".bak", "older\n");
    }
    log_set_output(LOG_TO_FILE);
    log_event("new");
    EXPECT_EQ(content(paths_[DEBUG_LOG] + ".bak"), "old\n");
    EXPECT_EQ(content(paths_[ERROR_LOG] + ".bak"), "old\n");
    EXPECT_EQ(content(paths_[MESSAGE_LOG] + ".bak"), "older\n");
    EXPECT_EQ(content(paths_[MESSAGE_LOG] + ".1"), "old\n");
    EXPECT_FALSE(std::filesystem::exists(paths_[DEBUG_LOG] + ".1"));
    EXPECT_EQ(lines(MESSAGE_LOG), "new\n");
    log_set_output(LOG_TO_NONE);
    EXPECT_EQ(log_records[MESSAGE_LOG].fp, nullptr);
    EXPECT_EQ(log_records[DEBUG_LOG].descriptor, -1);
}

TEST_F(Log, RotatesAtTheLimitAndShiftsCopies) {
    log_set_output(LOG_TO_FILE);
    log_record& record = log_records[DEBUG_LOG];
    record.backups = 2;
    const size_t limit = 512 * 1024;
    append_line(record, std::string(limit - 2, 'a') + "\n");
    EXPECT_FALSE(std::filesystem::exists(paths_[0] + ".1")) << "one byte short";
    append_line(record, "\n");
    EXPECT_EQ(std::filesystem::file_size(paths_[0] + ".1"), limit);
    EXPECT_EQ(content(paths_[0]), "") << "no line about missed events";
    append_line(record, std::string(limit, 'b'));
    EXPECT_EQ(content(paths_[0] + ".1")[0], 'b');
    EXPECT_EQ(content(paths_[0] + ".2")[0], 'a');
    record.missed = 3;
    append_line(record, std::string(limit, 'c'));
    EXPECT_EQ(content(paths_[0]), "log miss events: 3\n");
    EXPECT_EQ(content(paths_[0] + ".2")[0], 'b');
    EXPECT_FALSE(std::filesystem::exists(paths_[0] + ".3"));
}

TEST_F(Log, FailedRenameIsReportedOnceAndLoggingGoesOn) {
    log_set_output(LOG_TO_FILE);
    std::filesystem::create_directory(paths_[DEBUG_LOG] + ".1");
    log_records[DEBUG_LOG].max_kb = 0;
    log_trace("f", 1, "first");
    log_records[DEBUG_LOG].max_kb = 512;
    log_trace("f", 1, "second");
    EXPECT_EQ(lines(ERROR_LOG), " tb_log(644) - fail to rename the file - " + paths_[DEBUG_LOG] +
                                    " to " + paths_[DEBUG_LOG] + ".1\n");
    EXPECT_EQ(lines(DEBUG_LOG), " f(1) - first\n f(1) - second\n");
    EXPECT_EQ(log_records[DEBUG_LOG].dropped, 1U) << "the copy of the error met the rotation";
}

TEST_F(Log, BusyRecordsDropLines) {
    log_set_output(LOG_TO_FILE);
    log_record& record = log_records[DEBUG_LOG];
    record.rotating = true;
    EXPECT_EQ(log_trace("f", 1, "dropped"), 0);
    EXPECT_EQ(record.dropped, 1U);
    check_rotation(record, true);
    EXPECT_TRUE(record.rotating) << "somebody else's mark";
    record.rotating = false;
    record.writing = true;
    EXPECT_EQ(log_trace("f", 1, "skipped"), 0);
    EXPECT_EQ(record.dropped, 1U);
    record.writing = false;
    log_trace("f", 1, "written");
    EXPECT_EQ(lines(DEBUG_LOG), " f(1) - written\n");
}

TEST_F(Log, ThreadsWriteWholeLinesAcrossRotations) {
    log_set_output(LOG_TO_FILE);
    log_records[DEBUG_LOG].max_kb = 1;
    log_records[DEBUG_LOG].backups = 100;
    std::atomic<bool> stop = false;
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; i++) {
        threads.emplace_back([&stop] {
            while (!stop) {
                log_trace("worker", 1, "%s", std::string(60, 'w').c_str());
            }
        });
    }
    for (int i = 0; i < 20; i++) {  // what a signal handler and another thread may do meanwhile
        log_from_signal(1, "signal");
        log_set_output(LOG_TO_NONE);
        log_set_output(LOG_TO_FILE);
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    log_trace("end", 0, "end");
    const std::string line = " worker(1) - " + std::string(60, 'w');
    EXPECT_TRUE(lines(DEBUG_LOG).ends_with("end() - end\n"));
    for (const auto& file : std::filesystem::directory_iterator(folder_)) {
        std::istringstream text(unstamped(content(file.path())));
        for (std::string seen; std::getline(text, seen);) {
            EXPECT_TRUE(seen == line || seen == " SYSTEM:(1) - signal" || seen == " end() - end")
                << seen;
        }
    }
}

TEST_F(Log, CancelledThreadLeavesNoMarks) {
    log_set_output(LOG_TO_FILE);
    for (int round = 0; round < 50; round++) {
        pthread_t thread = {};
        const auto work = [](void*) -> void* {
            for (;;) {
                log_trace("cancelled", 1, "line");
                pthread_testcancel();
            }
        };
        ASSERT_EQ(pthread_create(&thread, nullptr, work, nullptr), 0);
        usleep(200);
        pthread_cancel(thread);
        pthread_join(thread, nullptr);
        ASSERT_FALSE(log_records[DEBUG_LOG].writing);
        ASSERT_FALSE(log_records[DEBUG_LOG].rotating);
    }
}

TEST_F(Log, MysprintfAppendsOrComplains) {
    log_set_output(LOG_TO_FILE);
    char buffer[12] = "..........#";
    size_t left = 10;
    char* cursor = mysprintf(buffer, &left, "%s", "12345678901234567890");
    EXPECT_EQ(cursor, buffer);
    EXPECT_EQ(left, 10U);
    EXPECT_STREQ(buffer, "..........#");
    EXPECT_EQ(lines(ERROR_LOG), " mysprintf(75) - len=20, buf_size=10, str=12345678901234567890\n");
    cursor = mysprintf(cursor, &left, "%d%s", 12, "34");
    cursor = mysprintf(cursor, &left, "567890");
    EXPECT_EQ(cursor, buffer + 10);
    EXPECT_EQ(left, 0U);
    EXPECT_STREQ(buffer, "1234567890#") << "fills its room and not a byte more";
}

TEST_F(Log, TailForTheWebInterface) {
    char text[16384] = {};
    log_set_output(LOG_TO_NONE);
    EXPECT_EQ(read_log_tail(text, sizeof text, 1), -2) << "no file";
    put(MESSAGE_LOG, "", "");
    EXPECT_EQ(read_log_tail(text, sizeof text, 1), 0);
    EXPECT_STREQ(text, "-- empty --\n");
    put(MESSAGE_LOG, "", "new 1\nnew 2");
    put(ERROR_LOG, "", "error\n");
    EXPECT_EQ(read_log_tail(text, sizeof text, 0), 2);
    EXPECT_STREQ(text, "new 1\nnew 2\n");
    EXPECT_EQ(read_log_tail(text, sizeof text, 2), 1);
    EXPECT_STREQ(text, "error\n");
    put(MESSAGE_LOG, ".1", "copy\n");
    EXPECT_EQ(read_log_tail(text, sizeof text, 0), 3);
    const std::string copy_end =
        " -------- end of file <" + paths_[MESSAGE_LOG] + ".1> -------\n\n";
    EXPECT_EQ(text, "copy\n" + copy_end + "new 1\nnew 2\n");
    char little[10] = {};
    EXPECT_EQ(read_log_tail(little, sizeof little, 0), 1) << "the copy's line, then no room";
    EXPECT_STREQ(little, "copy\n");
}

// What a run of `count` equal characters and a newline becomes: pieces of 255.
std::string pieces(char c, size_t count) {
    std::string text;
    for (; count > 0; count -= std::min<size_t>(count, 255)) {
        text += std::string(std::min<size_t>(count, 255), c) + "\n";
    }
    return text;
}

TEST_F(Log, TailIsBounded) {
    char text[16384] = {};
    const std::string copy_end = " -------- end of file <" + paths_[ERROR_LOG] + ".1> -------\n\n";
    put(ERROR_LOG, ".1", std::string(9000, 'c') + "\n");
    put(ERROR_LOG, "", std::string(6000, 'e') + "\n");
    EXPECT_EQ(read_log_tail(text, sizeof text, 2), 2 + 20);
    EXPECT_EQ(text, pieces('c', 498) + copy_end + pieces('e', 4999));
    put(ERROR_LOG, "", std::string(6499, 'e') + "\n");
    EXPECT_EQ(read_log_tail(text, sizeof text, 2), 20);
    EXPECT_EQ(text, pieces('e', 4999)) << "from 6500 bytes on the copy is not needed";
    // A log that grows while it is read: an error for each line that does not fit.
    log_records[ERROR_LOG].rotate_at_open = 0;
    log_set_output(LOG_TO_FILE);
    EXPECT_EQ(read_log_tail(text, 4, 2), 0);
}

TEST_F(Log, ClearingEmptiesTheOpenLog) {
    log_set_output(LOG_TO_FILE);
    log_err("f", 1, "before");
    char text[64] = {};
    EXPECT_EQ(read_log_tail(text, sizeof text, 12), 0);
    EXPECT_STREQ(text, " -- cleared -- \n");
    log_err("f", 1, "after");
    EXPECT_EQ(lines(ERROR_LOG), " f(1) - after\n");
}

}  // namespace
