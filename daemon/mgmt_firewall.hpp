#pragma once

#include <string>

#include "sysrepo_device_handler.hpp"

// The directory of the management sets' rule files. It ends with a slash and the file formats
// add another, as the files have always been named ("/var/persistent/etc/nftables//...").
inline constexpr const char* mgmt_nft_directory = "/var/persistent/etc/nftables/";

// Refills the set of `port` with `addresses` and saves its listing to the port's rule file under
// `directory`. update_mgmt_nft calls it with mgmt_nft_directory.
void apply_mgmt_nft(const std::string& addresses, mgmt_ports port, const std::string& directory);
