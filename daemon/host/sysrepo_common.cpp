#include "sysrepo_common.hpp"

#include <arpa/inet.h>

#include <array>
#include <sstream>

namespace sysrepo_common {

namespace {

std::array<std::string_view, 28> make_ieth_interfaces() {
    return {"e1",  "e2",  "e3",  "e4",  "e5",  "e6",  "e7",  "e8",          "e9",  "e10",
            "e11", "e12", "e13", "e14", "e15", "e16", "e17", "e18",         "e19", "e20",
            "e21", "e22", "e23", "e24", "e25", "e26", "e27", MGMT_INTERFACE};
}

}  // namespace

const std::array<std::string_view, 28> IETH_INTERFACES = make_ieth_interfaces();

std::string prefix_length_to_netmask(int n) {
    std::string out;
    for (int k = 0; k < 4; ++k) {
        unsigned octet = 0;
        // 64-bit arithmetic: lengths near the ends of the int range must not overflow.
        for (int j = 0; j < 8; ++j)
            if (static_cast<long long>(n) - 8 * k - j > 0) octet |= 0x80u >> j;
        if (k) out += '.';
        out += std::to_string(octet);
    }
    return out;
}

int netmask_to_prefix_length(const std::string& netmask) {
    std::istringstream in(netmask);
    std::string field;
    int bits = 0;
    while (std::getline(in, field, '.')) bits += __builtin_popcount(std::stoi(field) & 0xff);
    return bits;
}

bool is_string_ipaddress(const std::string& text) {
    // inet_pton reads up to the first NUL; a text holding one is no address.
    in_addr addr{};
    return text.find('\0') == std::string::npos && inet_pton(AF_INET, text.c_str(), &addr) == 1;
}

bool is_valid_netmask(const std::string& text) {
    return text.find_first_not_of("0123456789.") == std::string::npos;
}

}  // namespace sysrepo_common
