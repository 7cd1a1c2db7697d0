#pragma once

#include <string>
#include <unordered_map>
#include <vector>

// Platform-wide names of transponder traffic modes and host-interface descriptions, shared with
// the platform's other programs. This daemon only carries them.
namespace qmx_common_definitions {

const std::string& string_100G();
const std::string& string_200G();
const std::string& string_300G();
const std::string& string_400G();
const std::string& OTU4_100G();
const std::string& CAUI4_100G();
const std::string& GAUI8_400G();
const std::string& GAUI2_100G();
const std::string& GAUI2_200G();
const std::string& GAUI2_300G();
const std::string& GAUI2_400G();
const std::string& GAUI2_400G_breakout();
const std::string& Muxponder_400G();
const std::string& GAUI2_host_code();

struct host_info_t {
    std::string host_interface;
    std::vector<std::string> host_lanes;
};

// Traffic-mode text -> host interface description and lane codes.
const std::unordered_map<std::string, host_info_t>& host_info_map();

}  // namespace qmx_common_definitions
