// `ethtool -m` output: the property split and the number reader on every property.

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "dh_error.hpp"
#include "ethtool_parse.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    for (const auto& [name, value] : ethtool::parse_module_info(text)) {
        for (const char* unit : {"dBm", "mA", "degrees C", "V"}) {
            try {
                ethtool::parse_number(value, unit);
            } catch (const dh_error&) {
            } catch (const std::invalid_argument&) {
            } catch (const std::out_of_range&) {
            }
        }
    }
    return 0;
}
