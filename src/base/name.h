// SPDX-License-Identifier: Apache-2.0
// Names that come from outside and become part of a path or a command. What is allowed is listed:
// no name leaves its folder, is taken for an option or means anything to a shell that is given it
// without quotes, but for blanks and brackets. No state; any thread.
#pragma once

#include <cstddef>
#include <string_view>

constexpr size_t PROGRAM_NAME_LIMIT = 127;  // bytes; requests of the web pages hold no longer one
constexpr size_t FILE_NAME_LIMIT = 255;     // bytes, as file systems have it

// Of a plug-in, which is a program in /var/run and a part of the platform's paths: letters, digits,
// bytes beyond ASCII and ._-+~@%:,= of which '.', '-' and '~' do not begin it.
[[nodiscard]] bool is_program_name(std::string_view name);

// Of a package in the download folder: the same and blanks, !#^ and ()[]{}, but no blank in front.
[[nodiscard]] bool is_file_name(std::string_view name);
