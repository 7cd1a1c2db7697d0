// `chronyc -cN selectdata` output, evaluated for two configured servers.

#include <cstddef>
#include <cstdint>
#include <string>

#include "ntp_status.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto r = ntp_status::evaluate(text, "192.0.2.1", "ntp.example.net");
    ntp_status::text(r.primary);
    ntp_status::text(r.secondary);
    ntp_status::is_valid_server_address(std::string(text.substr(0, 300)));
    return 0;
}
