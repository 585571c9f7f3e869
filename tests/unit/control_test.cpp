// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "control/app_action.h"
#include "control/query.h"

namespace {

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

}  // namespace
