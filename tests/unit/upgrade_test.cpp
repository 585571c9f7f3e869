// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>

#include "base/handles.h"
#include "base/json.h"
#include "base/result.h"
#include "base/text.h"
#include "config/settings.h"
#include "upgrade/app_info.h"
#include "upgrade/check_cycle.h"
#include "upgrade/install.h"
#include "upgrade/package_file.h"
#include "upgrade/version_list.h"

namespace {

class upgrade_list : public testing::Test {
  protected:
    ~upgrade_list() override {
        while (app_list.next != &app_list) {
            app_info_ptr entry(app_list.next);
            app_list.next = entry->next;
            entry->next->prev = &app_list;
        }
        upgrade_busy = 0;
    }

    static app_info* add(const char* name, const char* version, const char* offered = nullptr) {
        addVersionToLocal(name, version);
        app_info* entry = app_list.prev;
        if (offered != nullptr) {
            entry->remote = std::make_unique<app_info>();
            entry->remote->version = heap_text(offered);
        }
        return entry;
    }
};

std::string text(const text_ptr& value) {
    return text_or(value, "(none)");
}

TEST(version_number, components_are_numbers_and_spill_over) {
    const struct {
        const char* version;
        long number;
    } rows[] = {{"1.2.3", 0x10203}, {"1.0.25-beta", 0},   {"", 0},
                {nullptr, 0},       {".1", 0x100},        {"1..3", 0x10003},
                {"0.0.256", 0x100}, {"1.2.3.x", 0x10203}, {"0.0.99999999999999999999", 0x7fffffff}};
    app_info installed;
    installed.version = heap_text("1.2.3");
    for (const auto& row : rows) {
        app_info offered;
        offered.version = heap_text(row.version);
        EXPECT_EQ(parse_version_number(row.version), row.number) << text(offered.version);
        EXPECT_EQ(is_not_newer(&installed, &offered), row.number <= 0x10203) << "strictly";
    }
}

TEST(app_record, reads_every_value_as_text) {
    const json_ptr json =
        parse_json(R"({"version_name":7,"version":"1","force_upgrade":true,"signature":null,)"
                   R"("size":"12kB","x":[1]})");
    app_info record;
    EXPECT_EQ(parseAppInfoJsonObj(json.get(), &record, 0), 0);
    EXPECT_EQ(text(record.version_name), "7");
    EXPECT_EQ(text(record.version), "(none)");
    EXPECT_EQ(text(record.signature), "(none)");
    EXPECT_EQ(record.upgrade_requested, 1);
    EXPECT_EQ(record.size, 12);
    EXPECT_EQ(parseAppInfoJsonObj(json.get(), &record, 1), 0);
    EXPECT_EQ(text(record.version), "1");
    EXPECT_EQ(parseAppInfoJsonObj(nullptr, &record, 1), ERR_NO_UPGRADE_INFO);
    EXPECT_EQ(parseAppInfoJsonObj(parse_json("[1]").get(), &record, 1), ERR_NOT_JSON);
}

TEST(upgrade_answer, status_and_data) {
    const struct {
        const char* answer;
        int result;
        const char* name;
        const char* version;
    } rows[] = {
        {R"({"status":"ok","data":{"to_version":"2.0"}})", 0, "asked", "2.0"},
        {R"({"data":{"app_name":"other","version":"2.0"}})", 0, "other", "(none)"},
        {R"({"status":"OK","data":{"to_version":"2.0"}})", ERR_ANSWER_STATUS, "(none)", "(none)"},
        {R"({"status":"ok"})", 0, "(none)", "(none)"},
        {R"({"status":"ok","data":"none"})", 0, "asked", "(none)"},
        {R"(["ok"])", ERR_NOT_JSON, "(none)", "(none)"},
        {"no json", ERR_NOT_JSON, "(none)", "(none)"},
    };
    for (const auto& row : rows) {
        app_info record;
        record.version = heap_text("left over");
        const json_ptr answer = parse_json(row.answer);
        EXPECT_EQ(parseRemoteAppInfo(answer.get(), &record, "asked"), row.result) << row.answer;
        EXPECT_EQ(text(record.app_name), row.name) << row.answer;
        EXPECT_EQ(text(record.version), row.version) << row.answer;
    }
}

TEST(package, name_never_leaves_its_folder) {
    char path[PACKAGE_PATH_SIZE] = {};
    const std::string longest(PACKAGE_PATH_SIZE - 1 - std::string(DOWNLOAD_FOLDER).size(), 'x');
    for (const std::string& good : {std::string("..a"), std::string("-O x"), longest}) {
        EXPECT_TRUE(package_path(good.c_str(), &path)) << good;
        EXPECT_EQ(path, DOWNLOAD_FOLDER + good);
    }
    for (const std::string& bad : {std::string(""), std::string("."), std::string(".."),
                                   std::string("a/b"), std::string("/a"), longest + "x"}) {
        EXPECT_FALSE(package_path(bad.c_str(), &path)) << bad;
        EXPECT_STREQ(path, "");
    }
}

TEST(package, and_its_folder_are_taken_only_when_nobody_else_can_change_them) {
    char folder[] = "/tmp/package_test_XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string file = std::string(folder) + "/file";
    const std::string link = std::string(folder) + "/link";
    const struct {
        mode_t mode;
        int flags;  // with which it is still open
        bool by_link, good;
    } rows[] = {{0644, O_RDONLY, false, true},
                {0664, O_RDONLY, false, false},
                {0602, O_RDONLY, false, false},
                {0644, O_WRONLY, false, false},
                {0644, O_RDONLY, true, false}};
    for (const auto& row : rows) {
        const unique_fd other(open(file.c_str(), O_CREAT | O_CLOEXEC | row.flags, 0600));
        ASSERT_EQ(fchmod(other.get(), row.mode), 0);
        ASSERT_EQ(symlink(file.c_str(), link.c_str()), 0);
        const std::string& path = row.by_link ? link : file;
        EXPECT_EQ(static_cast<bool>(take_package(path.c_str())), row.good) << &row - rows;
        EXPECT_NE(access(path.c_str(), F_OK), 0) << "its name is gone";
        (void)unlink(link.c_str());
        (void)unlink(file.c_str());
    }
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    EXPECT_FALSE(take_package(file.c_str())) << "and no waiting for a writer";
    EXPECT_FALSE(take_package(file.c_str())) << "missing";
    ASSERT_EQ(chmod(folder, 0777), 0);
    ASSERT_EQ(symlink(folder, link.c_str()), 0);
    EXPECT_TRUE(own_folder((link + "/").c_str())) << "by a link of our own";
    struct stat info = {};
    EXPECT_EQ(stat(folder, &info), 0);
    EXPECT_EQ(info.st_mode & 07777U, 0755U);
    EXPECT_FALSE(own_folder("/dev/null"));
    EXPECT_FALSE(own_folder((link + "/a/b").c_str()));
    if (geteuid() == 0) {
        ASSERT_EQ(lchown(link.c_str(), 1, 1), 0);
        EXPECT_FALSE(own_folder(link.c_str())) << "by somebody else's";
    }
    (void)unlink(link.c_str());
    (void)rmdir(folder);
}

TEST_F(upgrade_list, what_a_pass_does_with_each_status) {
    set_text(pluginmgr_config.api_server, "");
    upgrade_busy = 1;  // so that nothing is installed
    const std::set<int> requested_in = {1, 2, 3, 4, 5, 6, 7, 11, 12, 13, 14};
    const std::set<int> left_alone = {1, APP_DOWNLOADING, APP_DOWNLOADED, APP_INSTALLING, 14};
    for (int status = 0; status <= 14; status++) {
        if (status == APP_INSTALLED) {
            continue;  // starts a program
        }
        append_app(std::make_unique<app_info>());  // without a name: passed over
        app_info* entry = add("x", "1.0", "1.1");
        entry->status = entry->size = status;
        entry->remote->upgrade_requested = static_cast<int>(requested_in.count(status));
    }
    std::atomic<int> flag = 0;
    checkAllAppVersion(&flag);
    for (const app_info* entry = first_app(); entry != nullptr; entry = next_app(entry)) {
        EXPECT_EQ(entry->status, entry->size);
        EXPECT_EQ(entry->remote->upgrade_requested == 1, left_alone.count(entry->size) == 1)
            << entry->size;
    }
    flag = 1;  // asks, and has nobody to ask
    checkAllAppVersion(&flag);
    EXPECT_EQ(flag, 0);
    for (const app_info* entry = first_app(); entry != nullptr; entry = next_app(entry)) {
        const bool left = left_alone.count(entry->size) == 1;
        EXPECT_EQ(entry->status, left ? entry->size : APP_CHECK_FAILED) << entry->size;
        EXPECT_EQ(entry->remote != nullptr, left) << entry->size;
    }
}

}  // namespace
