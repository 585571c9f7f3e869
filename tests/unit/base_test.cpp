// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdio>
#include <string>
#include <utility>

#include "base/file.h"
#include "base/handles.h"
#include "base/json.h"
#include "base/shell.h"
#include "base/text.h"

TEST(Text, CutsAtTheFieldAndSaysSo) {
    char field[8] = {};
    EXPECT_TRUE(set_text(field, "1234567"));
    EXPECT_STREQ(field, "1234567");
    EXPECT_FALSE(set_text(field, "12345678"));
    EXPECT_STREQ(field, "1234567");
    EXPECT_TRUE(format_text(field, "%d-%s", 42, "abcd"));
    EXPECT_STREQ(field, "42-abcd");
    EXPECT_FALSE(format_text(field, "%d-%s", 42, "abcde"));
    EXPECT_STREQ(field, "42-abcd");
    EXPECT_TRUE(set_text(field, "12345"));
    EXPECT_TRUE(append_text(field, sizeof field, "67"));
    EXPECT_FALSE(append_format(field, sizeof field, "%d", 8));
    EXPECT_STREQ(field, "1234567");
    EXPECT_TRUE(set_text(field, field + 3)) << "a field may be set from a part of itself";
    EXPECT_STREQ(field, "4567");
}

TEST(Text, NumbersEndAtTheFirstOtherCharacterAndStayInAnInt) {
    const std::pair<const char*, int> rows[] = {{"", 0},
                                                {"abc", 0},
                                                {"12abc", 12},
                                                {" \t-7", -7},
                                                {"+3", 3},
                                                {"- 3", 0},
                                                {"2147483647", INT_MAX},
                                                {"99999999999999999999", INT_MAX},
                                                {"-99999999999999999999", INT_MIN}};
    for (const auto& [text, value] : rows) {
        EXPECT_EQ(to_int(text), value) << text;
    }
}

// What the shell makes of a word is the value itself, and nothing in it is run.
TEST(Shell, WordsComeThroughTheShellAsTheyAre) {
    EXPECT_EQ(shell_word("http://dl.example:80/a_b-1.2,3%20+@=x"),
              "http://dl.example:80/a_b-1.2,3%20+@=x");
    EXPECT_EQ(shell_words("cloudae --ums"), "cloudae --ums");
    const std::string hostile[] = {"",      "a b",   "$(touch /tmp/x)",
                                   "`id`",  "a;b",   "it's",
                                   "''",    "a\nb",  "\\",
                                   "*",     "~",     "#x",
                                   "!",     "-n",    "a&b|c>d<e",
                                   "\"q\"", "$HOME", "caf\xc3\xa9"};
    for (const std::string& value : hostile) {
        char out[64] = {};
        const std::string command = "printf '%s' " + shell_word(value);
        ASSERT_EQ(read_shell(command.c_str(), out, sizeof out), static_cast<long>(value.size()))
            << value;
        EXPECT_EQ(out, value);
    }
}

TEST(Shell, ReportsStatusAndBoundsOutput) {
    EXPECT_EQ(run_shell("exit 3"), 3 << 8);
    EXPECT_EQ(run_shell("kill -9 $$"), SIGKILL);
    EXPECT_EQ(run_shell_format("test %s = %d", "7", 7), 0);
    EXPECT_EQ(run_shell_format("true %s", std::string(2000, 'x').c_str()), -1)
        << "a cut command is another command";
    char out[4] = {};
    EXPECT_EQ(read_shell("yes", out, sizeof out), 3) << "endless output ends with the buffer";
    EXPECT_STREQ(out, "y\ny");
}

TEST(Shell, JobGetsItsFilesWhereverTheyWere) {
    ASSERT_EQ(dup2(STDERR_FILENO, STDIN_FILENO), STDIN_FILENO);
    for (const auto& [lock, package] : {std::pair(8, 9), std::pair(9, 8), std::pair(10, 11),
                                        std::pair(9, 10), std::pair(11, 8)}) {
        for (const auto& [number, text] :
             {std::pair(lock, "lock\n"), std::pair(package, "package\n")}) {
            const file_ptr file(tmpfile());
            ASSERT_TRUE(write_whole(fileno(file.get()), text));
            ASSERT_EQ(dup3(fileno(file.get()), number, O_CLOEXEC), number);
            ASSERT_EQ(lseek(number, 0, SEEK_SET), 0);
        }
        EXPECT_EQ(run_shell_job("read -r a <&8 && read -r b <&9 && test $a$b = lockpackage && "
                                "! test -e /proc/self/fd/10 && ! test -e /proc/self/fd/11 && test "
                                "/proc/self/fd/0 -ef /dev/null",
                                {.lock = lock, .package = package}),
                  0)
            << lock << ' ' << package;
        (void)close(lock);
        (void)close(package);
    }
}

TEST(Json, TextOfMembers) {
    const json_ptr value = parse_json(R"({"s":"text","n":12,"o":{"a":1},"z":null})");
    const struct {
        const char* key;
        bool found;
        const char* text;
    } rows[] = {{"s", true, "tex"}, {"n", true, "12"}, {"z", false, ""}, {"x", false, ""}};
    for (const auto& row : rows) {
        char out[4] = {};
        EXPECT_EQ(json_text(value.get(), row.key, out, sizeof out), row.found) << row.key;
        EXPECT_STREQ(out, row.text) << row.key;
    }
    char out[8] = "kept";
    EXPECT_FALSE(json_text(nullptr, "s", out, sizeof out));
    EXPECT_STREQ(out, "kept");
    EXPECT_EQ(parse_json("not json"), nullptr);
    EXPECT_EQ(parse_json_file("/nonexistent"), nullptr);
}
