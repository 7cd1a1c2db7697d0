// `lldpctl -f json` output: the interface array and its split by local port.

#include <cstddef>
#include <cstdint>
#include <string>

#include "dh_error.hpp"
#include "lldp_neighbours.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    try {
        const auto interfaces = lldp_neighbours::interfaces(text);
        lldp_neighbours::by_port(interfaces);
    } catch (const dh_error&) {
    }
    return 0;
}
