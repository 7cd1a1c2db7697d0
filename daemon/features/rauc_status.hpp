#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Reading the shell form of `rauc status --detailed --output-format=shell` (KEY='value' lines)
// and the slot decisions taken from it. A key that is absent reads as an empty text.
namespace rauc {

using status_map = std::map<std::string, std::string>;

// The value of key, or an empty text.
std::string value_of(const status_map& status, const std::string& key);

// The blank-separated words of a value such as RAUC_SLOTS.
std::vector<std::string> words(const std::string& value);

// The boot name an installation targets: "secondary" when the system runs from "primary",
// "primary" in every other case (also when the booted boot name is missing).
std::string target_bootname(const status_map& status);

struct slot_counts {
    int installed = 0;
    int activated = 0;
};

// Installed and activated counts of the first slot of RAUC_SLOTS whose boot name is `target`;
// zeros when none has it. Counts are read like std::stoi (std::invalid_argument or
// std::out_of_range with the text "stoi" on a value that is not a number).
slot_counts counts_of(const status_map& status, const std::string& target);

// True when a slot with boot name `target` has status "ok" and both counts one above `before`.
bool activation_confirmed(const status_map& status, const std::string& target, slot_counts before);

// True when the output of `rauc install` reports the whole installation as done.
bool install_output_ok(std::string_view output);

// The system slot to mark active for "other": the one of the first two RAUC_SYSTEM_SLOTS that
// is not RAUC_BOOT_PRIMARY. Raises dh_error -22 "Failed to find slots list." or
// "primary slot is not found in the slots list.".
std::string other_slot(const status_map& status);

// The system slot whose bundle description, or else bundle version, contains `version` (first
// match in RAUC_SLOTS order; the system slot name at the same position), or nothing.
std::optional<std::string> slot_with_version(const status_map& status, const std::string& version);

}  // namespace rauc

// KEY='value' lines -> map; the value loses its first and last character (the quotes); lines
// without "=" are skipped; a later key overwrites an earlier one.
std::map<std::string, std::string> parse_rauc_status(const std::string& text);
