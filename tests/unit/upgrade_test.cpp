// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <iterator>
#include <set>
#include <string>
#include <thread>

#include "base/handles.h"
#include "base/json.h"
#include "base/result.h"
#include "base/text.h"
#include "config/settings.h"
#include "log/tb_log.h"
#include "upgrade/app_info.h"
#include "upgrade/app_state.h"
#include "upgrade/check_cycle.h"
#include "upgrade/install.h"
#include "upgrade/package_file.h"
#include "upgrade/request.h"
#include "upgrade/version_list.h"
#include "upgrade/version_publish.h"

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
    const std::string longest(255, 'x');
    for (const std::string& good : {std::string("a b"), std::string("p-1.0_a.tgz"), longest}) {
        EXPECT_TRUE(package_path(good.c_str(), &path)) << good;
        EXPECT_EQ(path, DOWNLOAD_FOLDER + good);
    }
    EXPECT_FALSE(package_path(nullptr, &path));
    for (const std::string& bad : {std::string(""), std::string(".."), std::string("a/b"),
                                   std::string("-O x"), longest + "x"}) {
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
        const unique_fd package = take_package(path.c_str());
        EXPECT_EQ(static_cast<bool>(package), row.good) << &row - rows;
        EXPECT_EQ(access(path.c_str(), F_OK) == 0, row.good) << "its name stays for its installer";
        for (const bool newer : {false, true}) {
            const unique_fd next(open((path + "2").c_str(), O_CREAT | O_CLOEXEC, 0600));
            ASSERT_TRUE(!newer || rename((path + "2").c_str(), path.c_str()) == 0);
            remove_package(package.get(), path.c_str());
            EXPECT_EQ(access(path.c_str(), F_OK) == 0, newer) << "but not for longer";
        }
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
        const std::string kept = std::string(folder) + "/kept";
        ASSERT_EQ(mkdir(kept.c_str(), 0755), 0);
        ASSERT_EQ(mkdir((kept + "/inner").c_str(), 0755), 0);
        (void)unlink(link.c_str());
        for (const bool by_link : {true, false}) {
            if (by_link) {
                ASSERT_EQ(symlink(kept.c_str(), link.c_str()), 0);
            } else {
                ASSERT_EQ(mkdir(link.c_str(), 0777), 0);
                ASSERT_EQ(symlink(kept.c_str(), (link + "/to_kept").c_str()), 0);
            }
            ASSERT_EQ(lchown(link.c_str(), 1, 1), 0);
            EXPECT_TRUE(own_folder(link.c_str())) << "in the place of somebody else's";
            EXPECT_EQ(lstat(link.c_str(), &info), 0);
            EXPECT_EQ(info.st_mode, static_cast<mode_t>(S_IFDIR | 0700));
            EXPECT_EQ(info.st_uid, 0U);
            EXPECT_EQ(rmdir(link.c_str()), 0) << "and empty";
            EXPECT_EQ(access((kept + "/inner").c_str(), F_OK), 0) << "what a link led to stays";
        }
        EXPECT_EQ(rmdir((kept + "/inner").c_str()) + rmdir(kept.c_str()), 0);
    }
    (void)unlink(link.c_str());
    (void)rmdir(folder);
}

std::string list_of(size_t count) {
    std::string list = "[";
    for (size_t i = 0; i < count; i++) {
        list += i > 0 ? R"(, { "app_name": "plug)" : R"( { "app_name": "plug)";
        list += std::to_string(i) + R"(", "version": "1.0.0" })";
    }
    return list + " ]";
}

TEST(exported_versions, are_whole_entries_that_fit_and_outlive_the_next_ones) {
    size_t fitting = 1;
    while (list_of(fitting + 1).size() <= EXPORT_LIMIT) {
        fitting++;
    }
    const char* before = "";
    std::string expected;
    for (const size_t count : {size_t{0}, size_t{2}, fitting, fitting + 1, size_t{10'000}}) {
        export_versions(parse_json(list_of(count).c_str()).get());
        EXPECT_EQ(before, expected) << "a reader may be at it";
        before = getenv("cloud_version");
        expected = list_of(count < fitting ? count : fitting);
        EXPECT_EQ(before, expected) << count;
    }
}

TEST_F(upgrade_list, what_a_pass_does_with_each_status) {
    set_text(pluginmgr_config.api_server, "");
    upgrade_busy = 1;  // so that nothing is installed
    const std::set<int> requested_in = {1, 2, 4, 5, 14};
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

TEST_F(upgrade_list, every_pair_of_status_and_event) {
    enum class wish { kept, gone, there };
    const std::set<int> at_rest = {0, 3, 6, 7, 9, 10, 11, 12, 13};
    const std::set<int> any = {0, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};
    using enum app_event;
    const struct {
        app_event event;
        std::set<int> from;
        int to;
        bool of_job;
        wish upgrade;
    } rows[] = {
        {offer_newer, at_rest, 0, false, wish::kept},
        {offer_not_newer, at_rest, 9, false, wish::gone},
        {query_failed, at_rest, 10, false, wish::kept},
        {asked_for, at_rest, 0, false, wish::there},
        {stopped, any, 0, false, wish::gone},
        {download_begun, {0}, 2, false, wish::kept},
        {download_not_begun, {2}, 0, false, wish::kept},
        {nothing_to_download, {2}, 10, true, wish::gone},
        {download_failed, {2}, 3, true, wish::gone},
        {download_done, {2}, 4, true, wish::kept},
        {install_begun, {4}, 5, true, wish::kept},
        {package_missing, {4}, 6, true, wish::gone},
        {signature_missing, {5}, 12, true, wish::gone},
        {signature_wrong, {5}, 13, true, wish::gone},
        {install_failed, {5}, 6, true, wish::gone},
        {install_partial, {5}, 11, true, wish::gone},
        {install_done, {5}, 8, true, wish::kept},
        {restarted, {8}, 7, false, wish::gone},
    };
    ASSERT_EQ(std::size(rows), static_cast<size_t>(app_event::count));
    app_info* entry = add("x", "1.0", "1.1");
    for (const auto& row : rows) {
        for (int status = -1; status <= 14; status++) {
            for (const int asked : {0, 1}) {
                const auto speak = [&](app_job own, app_job job) {
                    entry->status = status;
                    entry->job = own;
                    entry->remote->upgrade_requested = asked;
                    return advance_locked(entry, job, row.event);
                };
                const bool way = row.from.count(status) == 1;
                const int wanted = row.upgrade == wish::kept ? asked : row.upgrade == wish::there;
                EXPECT_EQ(speak(7, row.of_job ? 7 : NO_JOB), way)
                    << status << " by " << static_cast<int>(row.event);
                EXPECT_EQ(entry->status, way ? row.to : status);
                EXPECT_EQ(entry->remote->upgrade_requested, way ? wanted : asked);
                if (row.of_job) {
                    EXPECT_FALSE(speak(7, 6)) << "an older job";
                    EXPECT_FALSE(speak(NO_JOB, NO_JOB)) << "a stopped one";
                    EXPECT_EQ(entry->status, status);
                }
            }
        }
    }
    entry->status = APP_IDLE;
    ASSERT_TRUE(advance_locked(entry, NO_JOB, download_begun));
    const app_job first = current_job(*entry);
    EXPECT_TRUE(is_current(*entry, first));
    ASSERT_TRUE(advance_locked(entry, NO_JOB, stopped));
    EXPECT_FALSE(is_current(*entry, current_job(*entry)));
    ASSERT_TRUE(advance_locked(entry, NO_JOB, download_begun));
    EXPECT_FALSE(is_current(*entry, first)) << "each download has a number of its own";
}

// The check cycle exchanges the offer for an older version and back, at any instant.
TEST_F(upgrade_list, only_a_newer_version_is_ever_asked_for) {
    app_info* entry = add("x", "1.0", "1.1");
    log_set_level(LOG_SYSTEM, LEVEL_ALWAYS);  // thousands of lines would only say so
    std::atomic<bool> stop = false;
    std::thread exchanger([&] {
        for (unsigned turn = 0; !stop; turn++) {
            app_info_ptr offer = std::make_unique<app_info>();
            offer->version = heap_text(turn % 2 == 0 ? "0.9" : "1.1");
            const app_list_guard guard;
            if (entry->remote->upgrade_requested == 0) {
                entry->remote.swap(offer);
            }
        }
    });
    for (int round = 0; round < 3000; round++) {
        EXPECT_EQ(startPluginAppUpdate("x"), 0);
        const app_list_guard guard;
        EXPECT_TRUE(entry->remote->upgrade_requested == 0 ||
                    !is_not_newer(entry, entry->remote.get()));
        entry->remote->upgrade_requested = 0;
    }
    stop = true;
    exchanger.join();
    log_set_level(LOG_SYSTEM, LEVEL_NOTICE);
}

}  // namespace
