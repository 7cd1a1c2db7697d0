#pragma once

#include <string>

#include "door.hpp"

// The two version texts published as "data/fwVersion" and "data/containerVersion".

// The firmware version inside the text of the host's /etc/version: what follows the model text
// "QMX-RB-16E ", up to " -- " (each cut only where its marker occurs).
std::string fw_version_from(std::string text);
// The container image name: the text with white space trimmed at both ends.
std::string container_version_from(std::string text);

// Read the host's /etc/version (through the host namespaces) and the container's own
// /etc/image/image_name.txt. A failed read yields an empty text, which is served as it is.
std::string read_fw_version(const host::door& door);
std::string read_container_version(const host::door& door);
