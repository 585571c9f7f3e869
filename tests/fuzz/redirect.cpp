// SPDX-License-Identifier: Apache-2.0
// The location of a redirect, moved to the front of the text that it stands in.
#include <cstring>
#include <memory>

#include "net/transport.h"
#include "world.h"

void body(fuzz_input& in) {
    const std::string answer = in.rest().c_str();
    const std::unique_ptr<char[]> text(new char[answer.size() + 1]);
    memcpy(text.get(), answer.c_str(), answer.size() + 1);
    const int code = check_http_redirect(text.get());
    require(code >= -1 && code <= 1, "a known result");
    require(code == 0 || answer == text.get(), "what is no redirect stays as it is");
    require(answer.find(text.get()) != std::string::npos, "the location is part of the answer");
}
