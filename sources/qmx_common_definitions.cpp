#include "qmx_common_definitions.hpp"

namespace qmx_common_definitions {

// Function-local constants: built on first use, safely under concurrent first calls.
#define QMX_TEXT(name, text)                  \
    const std::string& name() {               \
        static const std::string value{text}; \
        return value;                         \
    }

QMX_TEXT(string_100G, "100G")
QMX_TEXT(string_200G, "200G")
QMX_TEXT(string_300G, "300G")
QMX_TEXT(string_400G, "400G")
QMX_TEXT(OTU4_100G, "OTU4-OTU4")
QMX_TEXT(CAUI4_100G, "100GbE-100GbE")
QMX_TEXT(GAUI8_400G, "400GbE-400GbE")
QMX_TEXT(GAUI2_100G, "1x100GbE-1x100GbE")
QMX_TEXT(GAUI2_200G, "2x100GbE-2x100GbE")
QMX_TEXT(GAUI2_300G, "3x100GbE-3x100GbE")
QMX_TEXT(GAUI2_400G, "4x100GbE-4x100GbE")
QMX_TEXT(GAUI2_400G_breakout, "4x100GbE-4x100GbE-breakout")
QMX_TEXT(Muxponder_400G, "400G Muxponder")
QMX_TEXT(GAUI2_host_code, "D")

#undef QMX_TEXT

const std::unordered_map<std::string, host_info_t>& host_info_map() {
    static const std::unordered_map<std::string, host_info_t> map{
        {GAUI8_400G(), {"400GAUI-8 C2M (Annex 120E)", {"B", "41", "42"}}},
        {GAUI2_100G(), {"100GAUI-2 C2M (Annex 135G)", {GAUI2_host_code()}}},
        {GAUI2_200G(), {"100GAUI-2 C2M (Annex 135G)", {GAUI2_host_code()}}},
        {GAUI2_300G(), {"100GAUI-2 C2M (Annex 135G)", {GAUI2_host_code()}}},
        {GAUI2_400G(), {"100GAUI-2 C2M (Annex 135G)", {GAUI2_host_code()}}},
        {GAUI2_400G_breakout(), {"100GAUI-2 C2M (Annex 135G)", {GAUI2_host_code()}}},
        {CAUI4_100G(), {"CAUI-4 C2M (Annex 83E)", {"39"}}},
        {OTU4_100G(), {"OTL4.4", {"39"}}},
    };
    return map;
}

}  // namespace qmx_common_definitions
