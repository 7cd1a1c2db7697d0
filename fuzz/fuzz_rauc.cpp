// `rauc status --output-format=shell` and `rauc install` output: the parse and every reading of
// the parsed map the image commands make.

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "dh_error.hpp"
#include "rauc_status.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    rauc::install_output_ok(text);
    const auto status = parse_rauc_status(text);
    try {
        const std::string target = rauc::target_bootname(status);
        const auto before = rauc::counts_of(status, target);
        rauc::activation_confirmed(status, target, before);
        rauc::slot_with_version(status, "1.2.3");
        rauc::other_slot(status);
    } catch (const dh_error&) {
    } catch (const std::invalid_argument&) {
    } catch (const std::out_of_range&) {
    }
    return 0;
}
