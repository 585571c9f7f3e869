// SPDX-License-Identifier: Apache-2.0
#include "config/ini.h"

#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "base/file.h"
#include "log/tb_log.h"
#include "scratch.h"

namespace {

class ini_files : public scratch {
  protected:
    ini_files() { log_set_output(LOG_TO_NONE); }

    void write(std::string_view text) const { write_file(path, text); }
    [[nodiscard]] std::string read() const { return read_file(path); }
    [[nodiscard]] std::string look_up(const char* section, const char* key) const {
        char value[1024] = "untouched";
        const int code = ini_get(path.c_str(), section, key, value, sizeof value);
        return code == 0 ? value : std::to_string(code) + (*value == 'u' ? "" : " and touched");
    }

    const std::string path = in("settings.ini");
};

TEST_F(ini_files, lookup) {
    using namespace std::string_literals;
    const std::string x510(510, 'x');  // a line of 512 with "k=" before it
    const std::string x509(509, 'x');
    const struct {
        const char* what;
        std::string text;
        const char* key;
        std::string result;  // the value, or the code's number
        const char* section = "Config";
    } rows[] = {
        {"blanks around everything", "  [Config]  \n  key = a b  \n", "key", "a b"},
        {"tabs before key and value", "[Config]\n\tkey=\t v\n", "key", "v"},
        {"empty value", "[Config]\nkey=\n", "key", ""},
        {"second equals sign belongs to the value", "[Config]\nkey=a=b\n", "key", "a=b"},
        {"no last newline", "[Config]\nkey=v", "key", "v"},
        {"carriage returns anywhere", "[Con\rfig]\r\nk\rey=v\r\n", "key", "v"},
        {"zero byte ends a line", "[Config]\nkey=v\0b=1\n"s, "b", "1"},
        {"form feed stays and ends a line", "[Config]\nkey=v\fb=1\n", "key", "v\f"},
        {"after a control-Z", "[Config]\nkey=v\032b=1\n", "b", "1"},
        {"first key wins", "[Config]\nkey=1\nkey=2\n", "key", "1"},
        {"first section wins", "[Config]\na=1\n[Config]\nkey=2\n", "key", "-2"},
        {"comments and empty lines", "[Config]\n#key=1\n\n  # x\nkey=2\n", "key", "2"},
        {"case matters in keys", "[Config]\nKey=1\n", "key", "-2"},
        {"case matters in sections", "[config]\nkey=1\n", "key", "-1"},
        {"prefix of a key", "[Config]\nkey1=1\n", "key", "-2"},
        {"later section does not count", "[Config]\n[B]\nkey=1\n", "key", "-2"},
        {"nameless section", "[]\nkey=1\n", "key", "1", ""},

        {"continued", "[Config]\nkey=x+\n  y+\nz\n", "key", "xyz"},
        {"blank before the sign stays", "[Config]\nkey=x +  \ny\n", "key", "x y"},
        {"continued to the end of the file", "[Config]\nkey=x+", "key", "x"},
        {"comment and head as continuation", "[Config]\nkey=x+\n#c+\n[B]\n", "key", "x#c[B]"},
        {"empty line ends a value", "[Config]\nkey=x+\n\nb=2\n", "b", "2"},
        {"continuation of another key", "[Config]\na=x+\nkey=1\nkey=2\n", "key", "2"},
        {"head inside another key", "[A]\na=x+\n[Config]\nkey=1\n", "key", "-1"},

        {"512 characters", "[Config]\nk=" + x510 + "\nb=1\n", "k", x510},
        {"512, then a newline", "[Config]\nk=" + x509 + "+\r\ny\n", "k", x509 + "y"},
        {"rest of a long line is a line", "[Config]\nk=" + x510 + "b=1\n", "b", "1"},
        {"512 joined", "[Config]\nk=" + x509 + "+\nxyz\n", "k", x509 + "xyz"},
        {"513 joined", "[Config]\nk=" + x509 + "+\nwxyz\n", "k", "-22"},
        {"513 joined in another key", "[Config]\nk=" + x509 + "+\nwxyz\nb=1\n", "b", "1"},

        {"no equals sign", "[Config]\nkey\nb=1\n", "b", "-14"},
        {"no key", "[Config]\n \t=1\nb=1\n", "b", "-14"},
        {"tab before a head", "[Config]\n\t[B]\nb=1\n", "b", "-14"},
        {"only tabs", "[Config]\n\t\nb=1\n", "b", "-14"},
        {"broken line after the key", "[Config]\nb=1\nkey\n", "b", "1"},
        {"broken key line in another section", "[A]\nrubbish\n[Config]\nb=1\n", "b", "1"},
        {"broken head before", "[Bro\n[Config]\nb=1\n", "b", "-14"},
        {"broken head at the section's end", "[Config]\na=1\n[Bro\n", "b", "-14"},
        {"broken head after the key", "[Config]\nb=1\n[Bro\n", "b", "1"},
        {"head of two characters", "[B\n[Config]\nb=1\n", "b", "1"},
        {"empty file", "", "b", "-1"},
    };
    for (const auto& row : rows) {
        write(row.text);
        EXPECT_EQ(look_up(row.section, row.key), row.result) << row.what;
    }
}

TEST_F(ini_files, small_buffers_and_files_that_cannot_be_read) {
    EXPECT_EQ(look_up("Config", "key"), "-10");
    write("[Config]\nkey=12345678\n");
    char value[10] = "---------";
    EXPECT_EQ(ini_get(path.c_str(), "Config", "key", value, 8), INI_NO_ROOM);
    EXPECT_STREQ(value, "---------") << "nothing rather than a part of it";
    EXPECT_EQ(ini_get(path.c_str(), "Config", "key", value, 9), 0);
    EXPECT_STREQ(value, "12345678");
    EXPECT_EQ(ini_set((path + "/x").c_str(), "Config", "key", "v"), INI_NOT_CREATED);
    const std::string pipe = in("pipe");
    const std::string endless = in("endless");
    const std::string long_one = in("long");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    ASSERT_EQ(symlink("/dev/zero", endless.c_str()), 0);
    write_file(long_one, "[Config]\nkey=1\n" + std::string(SETTINGS_FILE_LIMIT - 15, '\n'));
    EXPECT_EQ(ini_set(long_one.c_str(), "Config", "key", "2"), 0) << "a file up to the limit";
    EXPECT_EQ(ini_set(long_one.c_str(), "Config", "key", "20"), INI_NOT_CREATED);
    EXPECT_EQ(read_file(long_one).size(), SETTINGS_FILE_LIMIT);
    write_file(long_one, std::string(SETTINGS_FILE_LIMIT + 1, '\n'));
    for (const std::string& other : {std::string(folder), pipe, endless, long_one}) {
        ini_name names[1] = {};
        EXPECT_EQ(ini_get(other.c_str(), "Config", "key", value, sizeof value), INI_NOT_OPENED)
            << other;
        EXPECT_EQ(ini_list_sections(other.c_str(), names), INI_NOT_OPENED) << other;
        EXPECT_EQ(copy_file(other.c_str(), path.c_str()), INI_NOT_OPENED) << other;
        EXPECT_EQ(ini_set(other.c_str(), "Config", "key", "v"),
                  other == folder ? INI_NOT_CREATED : INI_NOT_OPENED);
        EXPECT_TRUE(ini_mentions(other.c_str(), "key")) << "for all that is known: " << other;
    }
    EXPECT_FALSE(ini_mentions("/nonexistent", "key"));
}

TEST_F(ini_files, an_unreadable_file_is_one_error_line) {
    log_init();
    const auto lines = [this] {
        testing::internal::CaptureStdout();
        (void)look_up("Config", "key");
        (void)look_up("Config", "key");
        const std::string text = testing::internal::GetCapturedStdout();
        return text.find(" is not read: it is no regular file\n") != std::string::npos &&
               text.find(" is not read: ") == text.rfind(" is not read: ");
    };
    EXPECT_FALSE(lines()) << "none for a missing one";
    for (int round = 0; round < 2; round++) {
        ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
        EXPECT_TRUE(lines());
        ASSERT_EQ(unlink(path.c_str()), 0);
        write("[Config]\nkey=1\n");
        EXPECT_EQ(look_up("Config", "key"), "1");
        ASSERT_EQ(unlink(path.c_str()), 0);
    }
}

TEST_F(ini_files, set) {
    const std::string long_value(509, 'x');
    const std::string one = "[Config]\nkey=1\n";
    const struct {
        const char* what;
        std::string before;
        std::string value;
        int code;
        std::string after;
    } rows[] = {
        {"empty file", "", "v", 0, "[Config]\nkey=v\n"},
        {"other section", "[A]\nkey=1\n", "v", 0, "[A]\nkey=1\n[Config]\nkey=v\n"},
        {"no last newline", "[A]\nkey=1", "v", 0, "[A]\nkey=1\n[Config]\nkey=v\n"},
        {"file ends in mid-value", "[A]\na=x+\n", "v", 0, "[A]\na=x+\n\n[Config]\nkey=v\n"},
        {"new key after the head", "[A]\n[Config]\n# c\nb=1\n", "v", 0,
         "[A]\n[Config]\nkey=v\n# c\nb=1\n"},
        {"replaced in place", "#\r\n[Config]\r\na=1\n key = 1\nb=2", "v", 0,
         "#\n[Config]\na=1\nkey=v\nb=2\n"},
        {"with its continuation lines", "[Config]\nkey=1+\n2+\n3\nb=2\n", "v", 0,
         "[Config]\nkey=v\nb=2\n"},
        {"shorter file", "[Config]\nkey=" + long_value.substr(1) + "\n", "", 0, "[Config]\nkey=\n"},
        {"closing plus sign", one, "v+ ", 0, "[Config]\nkey=v++\n\n"},
        {"nothing but one", "[Config]\nb=1\n", "+", 0, "[Config]\nkey=++\n\nb=1\n"},
        {"two of them, in a new section", "[A]\na=1\n", "v++", 0,
         "[A]\na=1\n[Config]\nkey=v+++\n\n"},
        {"in place of such a value", "[Config]\nkey=1++\n\nb=2+\n\n", "3+", 0,
         "[Config]\nkey=3++\n\nb=2+\n\n"},
        {"beside such a value", "[Config]\na=1++\n\nkey=2\n", "3", 0, "[Config]\na=1++\n\nkey=3\n"},
        {"plus sign inside", one, "v+w", 0, "[Config]\nkey=v+w\n"},
        {"broken section", "[Config]\nrubbish\n", "v", INI_MALFORMED, "[Config]\nrubbish\n"},
        {"second line in the value", one, "v\nb=2", INI_WRITE_ERROR, one},
        {"carriage return, which the reader drops", one, "v\rw", INI_WRITE_ERROR, one},
        {"the same for the other line ends", one, "v\fb=2", INI_WRITE_ERROR, one},
        {"longest line", one, long_value.substr(1), 0,
         "[Config]\nkey=" + long_value.substr(1) + "\n"},
        {"one more would read as two lines", one, long_value, INI_WRITE_ERROR, one},
        {"longest that ends in a plus sign", one, long_value.substr(3) + "+", 0,
         "[Config]\nkey=" + long_value.substr(3) + "++\n\n"},
        {"one more of these", one, long_value.substr(2) + "+", INI_WRITE_ERROR, one},
    };
    for (const auto& row : rows) {
        write(row.before);
        EXPECT_EQ(ini_set(path.c_str(), "Config", "key", row.value.c_str()), row.code) << row.what;
        EXPECT_EQ(read(), row.after) << row.what;
        if (row.code == 0) {
            const std::string kept = row.value.substr(0, row.value.find_last_not_of(' ') + 1);
            EXPECT_EQ(look_up("Config", "key"), kept) << row.what;
        }
    }
}

TEST_F(ini_files, set_keeps_the_file_itself_and_makes_a_missing_one) {
    EXPECT_EQ(ini_set(path.c_str(), "Config", "key", "v"), 0);
    struct stat before = {};
    struct stat after = {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    EXPECT_EQ(ini_set(path.c_str(), "Config", "key", "w"), 0);
    ASSERT_EQ(stat(path.c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(read(), "[Config]\nkey=w\n");
}

TEST_F(ini_files, two_threads_lose_nothing) {
    write("[Config]\na=\nb=\n");
    const auto count_up = [this](const char* key) {
        for (int i = 0; i <= 300; i++) {
            const std::string value(static_cast<size_t>(i % 50), *key);
            ASSERT_EQ(ini_set(path.c_str(), "Config", key, value.c_str()), 0);
            ASSERT_EQ(look_up("Config", key), value);
        }
    };
    std::thread other(count_up, "b");
    count_up("a");
    other.join();
    EXPECT_EQ(read(), "[Config]\na=\nb=\n");
}

TEST_F(ini_files, lists) {
    write("[A]\na=1+\n[no head]\nb=2\n[]\n[" + std::string(80, 'n') + "]\nrubbish\n");
    ini_name names[4] = {};
    ASSERT_EQ(ini_list_sections(path.c_str(), names), 3);
    EXPECT_STREQ(names[0].text, "A");
    EXPECT_STREQ(names[1].text, "");
    EXPECT_EQ(std::string(names[2].text), std::string(63, 'n'));
    EXPECT_EQ(ini_list_sections(path.c_str(), std::span(names, 1)), 1);

    ASSERT_EQ(ini_list_keys(path.c_str(), "A", names), 2);
    EXPECT_STREQ(names[0].text, "a");
    EXPECT_STREQ(names[1].text, "b");
    EXPECT_EQ(ini_list_keys(path.c_str(), "", names), 0);
    EXPECT_EQ(ini_list_keys(path.c_str(), "B", names), INI_NO_SECTION);
    EXPECT_EQ(ini_list_keys(path.c_str(), std::string(80, 'n'), names), INI_MALFORMED);
    EXPECT_EQ(ini_list_sections("/nonexistent", names), INI_NOT_OPENED);
    EXPECT_EQ(ini_list_keys("/nonexistent", "A", names), INI_NOT_OPENED);
}

TEST_F(ini_files, copy) {
    const std::string target = in("copy");
    const std::string text = std::string(3000, 'x') + "\nlast";
    write_file(target, std::string(5000, 'y'));
    write(text);
    EXPECT_EQ(copy_file(path.c_str(), target.c_str()), 0);

    EXPECT_EQ(copy_file("/nonexistent", target.c_str()), INI_NOT_OPENED);
    EXPECT_EQ(copy_file(target.c_str(), folder), INI_NOT_CREATED);
    EXPECT_EQ(copy_file(target.c_str(), "/dev/full"), INI_NOT_OPENED);
    EXPECT_EQ(read_file(target), text) << "still what the first copy made of it";
}

}  // namespace
