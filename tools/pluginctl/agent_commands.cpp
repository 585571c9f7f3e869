// SPDX-License-Identifier: Apache-2.0
#include <json-c/json.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "answers.h"
#include "base/json.h"
#include "codec/device_code.h"
#include "commands.h"
#include "control/agent_messages.h"
#include "control_socket.h"
#include "device/ipc.h"
#include "safe_text.h"
#include "words.h"

namespace {

// errno still holds the reason of a refusal.
int no_answer(ending end) {
    const int reason = errno;
    if (end == ending::REFUSED) {
        complain("cannot reach pluginmgr at %s: %s", CONTROL_SOCKET, strerror(reason));
    } else {
        complain(
            "no answer in time at %s. pluginmgr is probably waiting for the cloud; try again, or "
            "wait longer with --timeout.",
            CONTROL_SOCKET);
    }
    return EXIT_NOBODY;
}

void print_one(const char* key, const std::string& value) {
    const json_ptr object(json_object_new_object());
    json_object_object_add(object.get(), key, json_object_new_string(value.c_str()));
    print_json(json_object_to_json_string_ext(object.get(), JSON_C_TO_STRING_PLAIN));
}

// Prints an answer's text; refusal is what an empty one means.
int ask_text(const command_context& context, uint32_t type, std::string_view text, const char* key,
             const char* refusal) {
    agent_answer answer;
    const ending end = ask_message(type, text, context.timeout, &answer);
    if (end != ending::ANSWERED) {
        return no_answer(end);
    }
    if (answer.type != AGENT_ANSWER) {
        complain("%s", refusal);
        return EXIT_NOT_DONE;
    }
    if (context.json) {
        print_one(key, answer.text);
    } else {
        printf("%s\n", printable(answer.text).c_str());
    }
    return EXIT_DONE;
}

// Nothing of a report is encoded on its way into a request line.
bool is_report_word(std::string_view word) {
    const bool plain = std::all_of(word.begin(), word.end(), [](unsigned char c) {
        return c > ' ' && c < 0x7f && c != '&' && c != '#';
    });
    if (!plain || word.find('=') == std::string_view::npos || word.front() == '=') {
        complain("'%s' is not KEY=VALUE in characters that a URL can hold; write others as %%XX",
                 printable(word).c_str());
        return false;
    }
    return true;
}

}  // namespace

int run_report(const command_context& context, arguments words) {
    std::string text;
    std::string reply;
    for (const char* word : words) {
        if (!is_report_word(word)) {
            return EXIT_USAGE;
        }
        text += (text.empty() ? "" : "&") + std::string(word);
    }
    if (text.size() > MAX_MESSAGE) {
        complain("the report has %zu bytes, a message holds %zu", text.size(), MAX_MESSAGE);
        return EXIT_USAGE;
    }
    if (send_message(AGENT_APP_REPORT, text) != ending::ANSWERED) {
        return no_answer(ending::REFUSED);
    }
    // Messages are served in order: whoever is answered now knows that the report has gone.
    const ending end =
        ask(context.daemon, "method=gw.config.get&id=80000", context.timeout, &reply);
    if (end != ending::ANSWERED) {
        return nobody(end);
    }
    if (field(parse_json(reply.c_str()).get(), "id80000").starts_with("ums")) {
        complain("in the mode ums pluginmgr drops reports");
        return EXIT_NOT_DONE;
    }
    if (!context.json) {
        printf("handed over; pluginmgr does not tell what the cloud made of it\n");
    }
    return EXIT_DONE;
}

int run_loglevel(const command_context& context, arguments words) {
    const std::string_view level = words[0];
    if (level.size() != 1 || std::isdigit(static_cast<unsigned char>(level[0])) == 0) {
        complain("'%s' is no log level from 0 to 9", words[0]);
        return EXIT_USAGE;
    }
    if (send_message(AGENT_LOG_LEVEL, level) != ending::ANSWERED) {
        return no_answer(ending::REFUSED);
    }
    if (!context.json) {
        printf("log level %s until pluginmgr starts again\n", words[0]);
    }
    return EXIT_DONE;
}

int run_device_code(const command_context& context, arguments words) {
    const std::string_view text = words[0];
    if (text.size() != DEVICE_CODE_INPUT) {
        complain("'%s' has %zu characters; a device code is made of %zu", words[0], text.size(),
                 DEVICE_CODE_INPUT);
        return EXIT_USAGE;
    }
    return ask_text(context, AGENT_DEVICE_CODE, text, "device_code",
                    "pluginmgr made no code of this text");
}

int run_cloud_address(const command_context& context, arguments) {
    return ask_text(context, AGENT_CLOUD_ADDRESS, "", "cloud_address",
                    "the device is not activated: there is no device key yet");
}
