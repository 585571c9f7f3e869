// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <string>
#include <utility>

#include "base/file.h"
#include "base/handles.h"
#include "base/json.h"
#include "base/name.h"
#include "base/shell.h"
#include "base/text.h"
#include "scratch.h"

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

namespace {

class Files : public scratch {
  protected:
    const std::string path = in("file");
    const std::string other = in("other");
};

mode_t mode_of(const std::string& path) {
    struct stat info = {};
    return lstat(path.c_str(), &info) == 0 ? info.st_mode : 0;
}

size_t names_in(const char* folder) {
    using iterator = std::filesystem::directory_iterator;
    return static_cast<size_t>(std::distance(iterator(folder), iterator()));
}

}  // namespace

TEST_F(Files, AreReadWhenRegularAndNotTooLong) {
    const std::string pipe = in("pipe");
    const std::string link = in("link");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    ASSERT_EQ(symlink(path.c_str(), link.c_str()), 0);
    write_file(path, "12345");
    const struct {
        std::string path;
        size_t limit;
        int error;
    } rows[] = {{path, 5, 0},           {link, 5, 0},        {path, 4, EFBIG},
                {pipe, 5, EINVAL},      {folder, 5, EINVAL}, {"/dev/zero", 5, EINVAL},
                {in("none"), 5, ENOENT}};
    for (const auto& row : rows) {
        std::string text = "kept";
        errno = 0;
        EXPECT_EQ(::read_file(row.path.c_str(), row.limit, &text), row.error == 0 ? 0 : -1);
        EXPECT_EQ(row.error == 0 ? 0 : errno, row.error) << row.path;
        EXPECT_EQ(text, row.error == 0 ? "12345" : "kept") << row.path;
    }
    const unique_fd growing = open_regular(path.c_str(), 5);
    write_file(path, "123456");
    std::string text = "kept";
    EXPECT_EQ(read_open_file(growing.get(), 5, &text), -1) << "longer by now";
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(::read_file("/proc/self/status", TEXT_FILE_LIMIT, &text), 0) << "says length 0";
    EXPECT_GT(text.size(), 100U);
}

TEST_F(Files, OfJsonSayWhyTheyAreNone) {
    const std::string_view list = "[1]";
    const std::pair<std::string, int> rows[] = {
        {std::string(list) + std::string(JSON_FILE_LIMIT - list.size(), ' '), -1},
        {std::string(list) + std::string(JSON_FILE_LIMIT + 1 - list.size(), ' '), EFBIG},
        {"no json", 0}};
    for (const auto& [text, error] : rows) {
        write_file(path, text);
        errno = ENOENT;
        EXPECT_EQ(parse_json_file(path.c_str()) != nullptr, error == -1);
        EXPECT_TRUE(error == -1 || errno == error) << errno;
    }
}

TEST_F(Files, ArePublishedWholeOrNotAtAll) {
    const std::string draft = path + ".new";
    write_file(other, "other's");
    for (const char* before :
         {"nothing", "file", "link", "pipe", "draft", "draft's link", "folder"}) {
        const std::string what = before;
        std::filesystem::remove_all(path);
        std::filesystem::remove_all(draft);
        if (what == "file") {
            write_file(path, "a longer text of before");
        } else if (what == "link" || what == "draft's link") {
            ASSERT_EQ(symlink(other.c_str(), (what == "link" ? path : draft).c_str()), 0);
        } else if (what == "pipe") {
            ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
        } else if (what == "draft") {
            ASSERT_EQ(mkdir(draft.c_str(), 0700), 0) << "cannot be unlinked";
        } else if (what == "folder") {
            ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
        }
        const bool good = what != "folder";
        EXPECT_EQ(publish_file(path.c_str(), "text", 0640), good ? 0 : -1) << what;
        EXPECT_EQ(mode_of(path), good ? S_IFREG | 0640U : S_IFDIR | 0700U) << what;
        EXPECT_EQ(good ? read_file(path) : "", good ? "text" : "") << what;
        EXPECT_EQ(read_file(other), "other's") << what;
        EXPECT_EQ(names_in(folder), what == "draft" ? 3U : 2U) << what;
    }
    std::filesystem::remove_all(path);
    write_file(path, "old");
    const rlimit small = {2, RLIM_INFINITY};
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const auto handler = signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const int result = publish_file(path.c_str(), "text", 0640);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    signal(SIGXFSZ, handler);
    EXPECT_EQ(result, -1) << "no room for all of it";
    EXPECT_EQ(read_file(path), "old");
    EXPECT_EQ(names_in(folder), 2U) << "no draft is left";
}

TEST_F(Files, AreRemovedWithoutFollowingALink) {
    ASSERT_EQ(mkdir(other.c_str(), 0700), 0);
    write_file(other + "/kept", "x");
    ASSERT_TRUE(std::filesystem::create_directories(path + "/a/b"));
    write_file(path + "/a/b/c", "x");
    ASSERT_EQ(symlink(other.c_str(), (path + "/a/link").c_str()), 0);
    EXPECT_TRUE(remove_whole(path.c_str()));
    ASSERT_EQ(symlink(other.c_str(), path.c_str()), 0);
    EXPECT_TRUE(remove_whole(path.c_str()));
    EXPECT_TRUE(remove_whole(path.c_str())) << "nothing there";
    EXPECT_EQ(names_in(folder), 1U);
    EXPECT_EQ(read_file(other + "/kept"), "x");
    std::string deep = path;
    for (int i = 0; i < 100; i++) {
        deep += "/d";
    }
    ASSERT_TRUE(std::filesystem::create_directories(deep));
    EXPECT_TRUE(remove_whole(path.c_str()));
    EXPECT_EQ(mode_of(path), 0U) << "the name is free, however deep it was";
}

TEST(Name, HoldsWhatIsListedOnly) {
    const std::string longest(PROGRAM_NAME_LIMIT, 'x');
    const std::string longest_file(FILE_NAME_LIMIT, 'x');
    const struct {
        std::string name;
        bool program, file;
    } rows[] = {
        {"cloud_phone", true, true},
        {"cloud_phone-1.1.0+b7~rc2.tar.gz", true, true},
        {"_a.@%:,=-", true, true},
        {"caf\xc3\xa9", true, true},
        {longest, true, true},
        {longest + "x", false, true},
        {longest_file, false, true},
        {"phone (1) [a]{b} !#^.tgz", false, true},
        {longest_file + "x", false, false},
        {"", false, false},
        {".", false, false},
        {"..", false, false},
        {".hidden", false, false},
        {"-x", false, false},
        {"~root", false, false},
        {" x", false, false},
        {"../../tmp/evil", false, false},
        {"a/b", false, false},
        {std::string("a\0b", 3), false, false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(is_program_name(row.name), row.program) << row.name;
        EXPECT_EQ(is_file_name(row.name), row.file) << row.name;
    }
    for (const char sign : std::string("/\\$`'\"*?;&|<>\n\r\t\x01\x1b\x7f")) {
        EXPECT_FALSE(is_file_name(std::string("a") + sign + "b")) << static_cast<int>(sign);
    }
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
