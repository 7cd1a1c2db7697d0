#pragma once

#include <string_view>

// Checks of client text that is placed inside a single-quoted klish command line.
namespace cli_text {

// False when the text holds a character the shell would act on inside or after the quotes:
// ; | & ` $ ( ) { } [ ] < >, a quote of either kind, a backslash, or a control character.
bool is_allowed_command(std::string_view cmd);

// True when the first 19 characters read YYYY-MM-DD HH:MM:SS (digits where the letters stand).
bool has_date_time_form(std::string_view text);

}  // namespace cli_text
