#pragma once

#include <string>
#include <string_view>

// Evaluation of chrony's source-selection report (`chronyc -cN selectdata`) for the two
// configured NTP servers, and the address rule for configured servers.
namespace ntp_status {

// Status codes of one server and of the whole service.
inline constexpr int unknown = 0;
inline constexpr int not_synchronised = 1;
inline constexpr int synchronised = 2;
inline constexpr int not_connected = 3;

struct server_state {
    std::string state;  // chrony's state field of the line that decided the code, or empty
    int code = unknown;
};

struct report {
    server_state primary;
    server_state secondary;
    int overall = unknown;
};

// Reads the CSV lines of `chronyc -cN selectdata` (first field the state, second the source
// name). Selected sources ('*', '+') win over waiting ones ('W', 'P', 'U', 'D'), which win over
// rejected ones ('N', 'M', 'd', '~', 'w', 'S', 'O', 'T', 'x'); other states are ignored. A line
// counts for at most one server, the primary first.
report evaluate(std::string_view selectdata, const std::string& primary,
                const std::string& secondary);

// "synchronized", "not synchronized", "not connected" or "-", followed by " (state)" when a
// state was recorded.
std::string text(const server_state& s);

// True for a dotted-quad IPv4 address or an RFC 1123 host name (labels of letters, digits and
// inner hyphens, 1 to 63 characters, joined by dots; at most 253 characters).
bool is_valid_server_address(const std::string& address);

}  // namespace ntp_status
