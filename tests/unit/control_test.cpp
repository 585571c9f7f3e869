// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "base/handles.h"
#include "base/text.h"
#include "cloud/events.h"
#include "config/settings.h"
#include "control/agent_messages.h"
#include "control/app_action.h"
#include "control/boa_protocol.h"
#include "control/query.h"
#include "device/ipc.h"

namespace {

uint32_t word_at(const std::string& bytes, size_t offset) {
    uint32_t value = 0;
    memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

TEST(QueryValue, FirstKeyAnywhere) {
    struct {
        const char* text;
        const char* key;
        const char* value;  // null: not there
    } const rows[] = {
        {"method=gw.config.get&id=80000", "method=", "gw.config.get"},
        {"method=gw.config.get&id=80000", "id=", "80000"},
        {"grid=1&id=2", "id=", "1"},
        {"id=&next=3", "id=", ""},
        {"id=", "id=", ""},
        {"id", "id=", nullptr},
        {"", "id=", nullptr},
        {"a=b=c&d", "a=", "b=c"},
        {"language=english", "&language=", nullptr},
    };
    for (const auto& row : rows) {
        const auto value = query_value(row.text, row.key);
        EXPECT_EQ(value.has_value(), row.value != nullptr) << row.text;
        if (row.value != nullptr) {
            EXPECT_EQ(value.value_or("none"), row.value) << row.text;
        }
    }
}

TEST(AppAction, RefusesMissingArguments) {
    EXPECT_EQ(do_app_action("cloudae", ""), -1);
    EXPECT_EQ(do_app_action("", "restart"), -1);
    EXPECT_EQ(do_app_action(nullptr, "stop"), -1);
    EXPECT_EQ(do_app_action("cloudae", nullptr), -1);
    EXPECT_EQ(do_app_action("cloudae", "resta"), 0);  // no such action: nothing is done
}

// Plays the web server: replies arrive at a socket of its own.
class Control : public testing::Test {
  protected:
    void SetUp() override {
        web_.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        daemon_.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        boa.peer = {};
        boa.peer.sin_family = AF_INET;
        boa.peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* address = reinterpret_cast<sockaddr*>(&boa.peer);
        boa.peer_length = sizeof boa.peer;
        ASSERT_EQ(bind(web_.get(), address, boa.peer_length), 0);
        ASSERT_EQ(getsockname(web_.get(), address, &boa.peer_length), 0);
        boa.socket = daemon_.get();
        set_text(pluginmgr_config.cloudserver, "off");
        set_text(pluginmgr_config.UMS_SERVER, "ums.example");
        activation_state = 0;
    }
    void TearDown() override { boa.socket = -1; }

    static boa_request request(uint32_t marker, char flag, std::string_view query) {
        boa_request made = {};
        const uint32_t header[] = {7, 7, 11, 0x0a000001, 1, 0xabcd, marker};
        memcpy(made.bytes, header, sizeof header);
        made.bytes[28] = flag;
        memcpy(made.bytes + REQUEST_HEADER, query.data(), query.size());
        return made;
    }

    // Loopback delivers before sendto() returns. Empty when nothing was sent.
    std::string reply() {
        char bytes[2 * REPLY_SIZE] = {};
        const ssize_t length = recv(web_.get(), bytes, sizeof bytes, MSG_DONTWAIT);
        return length < 0 ? std::string() : std::string(bytes, static_cast<size_t>(length));
    }

  private:
    unique_fd web_;
    unique_fd daemon_;
};

TEST_F(Control, ReplyEchoesOnlyMarkedRequests) {
    struct {
        uint32_t marker;
        char flag;
        bool echoed;
    } const rows[] = {{0x8888, 0, true}, {0x8888, 1, false}, {0x8889, 0, false}, {0, 0, false}};
    for (const auto& row : rows) {
        send_reply(request(row.marker, row.flag, ""), "{}");
        const std::string got = reply();
        ASSERT_EQ(got.size(), REQUEST_HEADER + 2) << row.marker;
        std::string expected(REQUEST_HEADER, '\0');
        expected[8] = 11;
        if (row.echoed) {
            expected.replace(20, 6, std::string("\xcd\xab\0\0\x88\x88", 6));
        }
        EXPECT_EQ(got, expected + "{}") << row.marker;
    }
}

TEST_F(Control, BuffersAreFilledToTheirLastByte) {
    const std::string query(REQUEST_SIZE - REQUEST_HEADER, 'q');
    EXPECT_EQ(request(0, 0, query).query(), query);

    send_reply(request(0, 0, ""), std::string(REPLY_BODY + 1, 'j'));
    EXPECT_EQ(reply().size(), REPLY_SIZE);
}

TEST_F(Control, QueriesAndTheirReplies) {
    constexpr const char* refused = "{\"result\":\"error\",\"code\":91}";
    constexpr const char* mode =
        "{\"result\":\"ok\",\"code\":0,\"id80000\":\"off\",\"id80001\":\"fail\","
        "\"id80014\":\"ums.example\",\"id80020\":true}";
    struct {
        const char* query;
        const char* json;  // empty: no reply
    } const rows[] = {
        {"method=gw.config.get&id=80000", mode},
        {"a=b&method=gw.config.get&id= 80000x", mode},
        {"method=gw.config.get&id=80001", ""},
        {"method=gw.config.get&id=", ""},
        {"method=gw.config.get", ""},
        {"method=gw.config.get&grid=1&id=80000", ""},
        {"method=gw.config.gets&id=80000", ""},
        {"method=gw.config.ge&id=80000", ""},
        {"id=80000", ""},
        {"", ""},
        {"method=gw.app.action&pluginName=x", refused},
        {"method=gw.app.action&pluginName=x&pluginAction=updates", refused},
        {"method=gw.app.action&pluginName=x&pluginAction=", refused},
        {"method=gw.app.action&pluginAction=update", ""},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(http_handle_query(request(0, 0, row.query), CONTROL_PORT), 0);
        const std::string got = reply();
        EXPECT_EQ(got.substr(got.empty() ? 0 : REQUEST_HEADER), row.json) << row.query;
        EXPECT_EQ(reply(), "") << "a second reply to " << row.query;
    }
}

// Plays the cloud agent on a socket in a folder of its own.
TEST(AgentMessages, AnswersInTheSameFrame) {
    char folder[] = "/tmp/control_test.XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string daemon_path = std::string(folder) + "/daemon";
    const std::string agent_path = std::string(folder) + "/agent";
    const unique_fd daemon(bindUnixSocket(daemon_path.c_str()));
    const unique_fd agent(bindUnixSocket(agent_path.c_str()));
    ASSERT_TRUE(daemon && agent);
    pluginmgr_ctl_fd = daemon.get();
    set_text(pluginmgr_config.api_server, "api.example");
    set_text(pluginmgr_config.device_key, "key");

    struct {
        const char* state;
        uint32_t type;
        std::string payload;
        uint32_t answer_type;  // 0: no answer
        size_t answer_length;  // of the text
        const char* text;      // null: any
    } const rows[] = {
        {"true", AGENT_DEVICE_CODE, "0123456789ab", AGENT_ANSWER, 36, nullptr},
        {"true", AGENT_DEVICE_CODE, "0123456789a", AGENT_DEVICE_CODE, 0, ""},
        {"true", AGENT_DEVICE_CODE, "0123456789abc", AGENT_DEVICE_CODE, 0, ""},
        {"true", AGENT_DEVICE_CODE, std::string(236, 'x'), AGENT_DEVICE_CODE, 0, ""},
        {"true", AGENT_CLOUD_ADDRESS, "ignored", AGENT_ANSWER, 15, "api.example key"},
        {"false", AGENT_CLOUD_ADDRESS, "ignored", AGENT_CLOUD_ADDRESS, 0, ""},
        {"true", 0x3102, "0123456789ab", 0, 0, ""},
    };
    for (const auto& row : rows) {
        set_text(pluginmgr_config.active_state, row.state);
        std::string message(AGENT_HEADER, 'h');
        memcpy(message.data(), &row.type, sizeof row.type);
        message += row.payload;
        ASSERT_EQ(sendUnixSocket(agent.get(), daemon_path.c_str(), message.data(), message.size()),
                  static_cast<ssize_t>(message.size()));
        handle_agent_message();
        char bytes[2 * AGENT_MESSAGE_SIZE] = {};
        const ssize_t length = recv(agent.get(), bytes, sizeof bytes, MSG_DONTWAIT);
        if (row.answer_type == 0) {
            EXPECT_LT(length, 0) << row.payload;
            continue;
        }
        ASSERT_EQ(length, static_cast<ssize_t>(AGENT_HEADER + row.answer_length)) << row.payload;
        const std::string got(bytes, static_cast<size_t>(length));
        EXPECT_EQ(word_at(got, 0), row.answer_type) << row.payload;
        EXPECT_EQ(got.substr(4, 16), std::string(16, 'h')) << row.payload;
        if (row.text != nullptr) {
            EXPECT_EQ(got.substr(AGENT_HEADER), row.text) << row.payload;
        }
    }
    pluginmgr_ctl_fd = -1;
    (void)unlink(daemon_path.c_str());
    (void)unlink(agent_path.c_str());
    (void)rmdir(folder);
}

}  // namespace
