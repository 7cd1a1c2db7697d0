// The host's /etc/version and the container's image name file.

#include <cstddef>
#include <cstdint>
#include <string>

#include "version_texts.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    fw_version_from(text);
    container_version_from(text);
    return 0;
}
