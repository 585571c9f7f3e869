// SPDX-License-Identifier: Apache-2.0
#include "net/http.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "base/result.h"
#include "base/text.h"
#include "config/settings.h"
#include "log/tb_log.h"
#include "net/dns.h"
#include "net/transfer.h"
#include "tls_server.h"

namespace {

class http : public testing::Test {
  protected:
    void SetUp() override {
        log_set_output(LOG_TO_NONE);
        pluginmgr_config.conn_timeout = 2;
        set_text(pluginmgr_config.api_server, "api.example");
        set_text(pluginmgr_config.device_key, "key");
        set_text(pluginmgr_config.active_token, "to");
        set_text(pluginmgr_config.login_token, "");
        ASSERT_NE(mkdtemp(folder_), nullptr);
    }
    void TearDown() override {
        (void)unlink(path("body").c_str());
        (void)rmdir(folder_);
    }
    std::string path(const char* name) const { return std::string(folder_) + "/" + name; }
    std::string body() const {
        std::ifstream file(path("body"), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    char folder_[32] = "/tmp/http_test.XXXXXX";
};

TEST_F(http, writes_requests_byte_for_byte) {
    const std::string agent = "User-Agent:Mozilla/4.0 (compatible; MSIE 5.01; Windows NT 5.0)\n";
    const std::string get_lines =
        agent + "Accept: */*\nAccept-Language: zh-cn\nAccept-Encoding: gzip, deflate\n" +
        "Connection: keep-alive\r\n";
    const std::string post_lines =
        agent + "Content-Type:application/x-www-form-urlencoded\nConnection: keep-alive\r\n";
    struct row {
        const char* method;
        const char* body;
        const char* auth;
        const char* token;
        std::string text;
    };
    const std::string get = "GET /p HTTP/1.1\nHost: api.example\n";
    const std::string basic = "Authorization: Basic ";
    const row rows[] = {
        {"GET", nullptr, "", "to", get + get_lines + "\r\n"},
        {"GET", nullptr, "KEY", "to",
         get + basic + "a2V5OngtYXV0aC1kZXZpY2U=\n" + get_lines + "\r\n"},
        {"GET", nullptr, "TOKEN", "to", get + basic + "dG86\n" + get_lines + "\r\n"},
        {"GET", nullptr, "TOKEN", "t", get + get_lines + "\r\n"},
        {"GET", nullptr, "pass_TOKEN", "t", get + basic + "Og==\n" + get_lines + "\r\n"},
        {"POST", "a=1", nullptr, "to",
         "POST /p HTTP/1.1\nHost: api.example\n" + post_lines + "Content-Length: 3\r\n\r\na=1"},
    };
    for (const row& r : rows) {
        char out[1024] = "old";
        set_text(pluginmgr_config.active_token, r.token);
        EXPECT_EQ(construct_request(out, sizeof out, r.method, "/p", r.body, r.auth), 0);
        EXPECT_EQ(out, r.text);
        EXPECT_EQ(construct_request(out, 20, r.method, "/p", r.body, r.auth), -1);
        EXPECT_EQ(out, r.text.substr(0, 19));
    }
}

TEST_F(http, foreign_values_add_no_line) {
    char out[1024] = {};
    set_text(pluginmgr_config.api_server, "api\r\nX: 1");
    (void)construct_request(out, sizeof out, "PUT", "/p?a=\r\n\r\nGET /\x01\x7f\xc3 b", nullptr,
                            "");
    const std::string_view text = out;
    EXPECT_TRUE(
        text.starts_with("PUT /p?a=%0D%0A%0D%0AGET /%01%7F\xc3 b HTTP/1.1\n"
                         "Host: api%0D%0AX: 1\nUser-Agent:"))
        << text;
}

TEST_F(http, finds_values_in_answers) {
    struct row {
        const char* json;
        const char* value;  // of "code"; null is none
        int code;
    };
    const row rows[] = {
        {"{\"code\":0,\"message\":\"ok\"}", "0", 0},
        {"{\"code\":\"2201\"}", "2201", 2201},
        {"{\"code\":\"\"}", "", ERR_NO_CODE},
        {"{\"code\":{\"a\":1}}", "{ \"a\": 1 }", 0},
        {"{\"devices\":[{\"code\":7},{\"code\":8}]}", "7", 7},
        {"{\"code\":1,\"devices\":[{\"code\":7}]}", "1", 1},
        {"{\"devices\":[]}", nullptr, ERR_NO_CODE},
        {"{\"devices\":[5]}", nullptr, ERR_NO_CODE},
        {"{\"devices\":{\"code\":7}}", nullptr, ERR_NO_CODE},
        {"{\"code\":null}", nullptr, ERR_NO_CODE},
        {"[{\"code\":1}]", nullptr, ERR_NO_CODE},
        {"no json", nullptr, ERR_NO_CODE},
    };
    for (const row& r : rows) {
        const json_ptr json = parse_json(r.json);
        char text[32] = {};
        EXPECT_EQ(get_param_from_json_resp(json.get(), "code", text, sizeof text),
                  r.value == nullptr ? -1 : 0)
            << r.json;
        EXPECT_STREQ(text, r.value == nullptr ? "" : r.value);
        EXPECT_EQ(get_response_code_from_json_resp(json.get()), r.code) << r.json;
    }
}

// An answer of exactly so many bytes, header included.
std::string answer_sized(size_t size) {
    const size_t head = answer_of(std::string(4000, ' ')).size() - 4000;
    return answer_of("{\"code\":0}" + std::string(size - head - 10, ' '));
}

TEST_F(http, takes_answers_apart) {
    struct row {
        std::string answer;
        bool is_json;
        const char* header;
        size_t saved;
    };
    const row rows[] = {
        {answer_sized(4095), true, "HTTP/1.1 200 OK\r\nContent-Length: 4054", 4054},
        {answer_sized(4096), false, "", 0},
        {answer_sized(20000), false, "", 0},
        {answer_of("<html>"), false, "HTTP/1.1 200 OK\r\nContent-Length: 6", 6},
        {"{\"code\":1}", true, "", 10},
    };
    std::vector<std::string> answers;
    for (const row& r : rows) {
        answers.push_back(r.answer);
    }
    tls_server server(answers);
    https_conn conn;
    ASSERT_EQ(connect_https(&conn, server.place().c_str()), 0);
    for (const row& r : rows) {
        json_ptr json = parse_json("{}");
        char header[ANSWER_HEADER_SIZE] = {};
        ASSERT_EQ(https_handle_request_save_header(&conn, "GET\r\n\r\n", path("body").c_str(),
                                                   &json, header),
                  0);
        EXPECT_EQ(json != nullptr, r.is_json) << r.answer.size();
        EXPECT_STREQ(header, r.header);
        EXPECT_EQ(body().size(), r.saved);
    }
    EXPECT_EQ(https_handle_request(&conn, "GET\r\n\r\n", "/dev/null/no", nullptr), ERR_RECEIVE);
    EXPECT_NE(conn.socket, -1);
    close_https(&conn);
    EXPECT_EQ(https_handle_request(&conn, "GET\r\n\r\n", nullptr, nullptr), ERR_NOT_CONNECTED);
}

TEST_F(http, downloads_tell_why_they_did_not_begin) {
    const std::string target = path("body");
    set_dns_servers("", "no address", "1.2.3");
    EXPECT_EQ(download_file("http://host.example/", target.c_str()), TRANSFER_NO_HOST);
    EXPECT_EQ(download_file("http://host.example/", "/dev/null/no"), TRANSFER_NO_FILE);
    EXPECT_EQ(download_file("ftp://host.example/", target.c_str()), TRANSFER_NO_FILE);
    const loopback_socket nobody;  // bound, but it does not listen
    EXPECT_EQ(download_file(("https://" + nobody.place()).c_str(), target.c_str()),
              TRANSFER_NO_CONNECT);
}

TEST_F(http, upload_keeps_a_last_single_byte_back) {
    std::ofstream(path("body")) << std::string(1025, 'u');
    tls_server server(std::vector<std::string>{});
    const std::string place = server.place();
    EXPECT_EQ(https_post_file(place.c_str(), "/up", path("body").c_str()), 0);
    ASSERT_EQ(server.requests().size(), 1U);
    EXPECT_EQ(server.requests()[0],
              "POST /up HTTP/1.1\r\nHost: " + place +
                  "\r\nUser-Agent: Mozilla/4.0 (compatible; MSIE 5.01; Windows NT 5.0)\n"
                  "Content-Length: 1025\r\nConnection: close\r\n\r\n" +
                  std::string(1024, 'u'));
}

}  // namespace
