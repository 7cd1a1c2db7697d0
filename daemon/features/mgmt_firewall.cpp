#include <fmt/format.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "interfaces.hpp"
#include "raise.hpp"

namespace {

// The directory of the management sets' rule files.
constexpr std::string_view rule_directory = "/var/persistent/etc/nftables";

struct mgmt_set {
    const char* set;
    const char* file;
};

mgmt_set target_of(mgmt_ports port) {
    switch (port) {
        case mgmt_ports::e27:
            return {"e27_ip_addresses", "ruleset-e27-ip.nft"};
        case mgmt_ports::e28:
            return {"e28_ip_addresses", "ruleset-e28-ip.nft"};
        case mgmt_ports::mgmt:
            return {"mgmt_ip_addresses", "ruleset-mgmt-ip.nft"};
    }
    dh::raise(-22, "Invalid interface for mgmt nft rule", "update_mgmt_nft");
}

// nft reads its statements from standard input, as one line.
std::string run_nft(const host::door& door, const std::string& statements) {
    try {
        return door.call({"/usr/sbin/nft", "-f", "-"}, host::in_host().feeding(statements + "\n"));
    } catch (const dh_error&) {
        return {};
    }
}

}  // namespace

void interfaces_unit::update_mgmt_nft(const std::string& addresses, const mgmt_ports& port) {
    const mgmt_set target = target_of(port);
    std::string statements = fmt::format("flush set inet filter {};", target.set);
    if (!addresses.empty())
        statements += fmt::format("add element inet filter {} {{{}}} ", target.set, addresses);
    run_nft(door_, statements);
    const std::string listing = run_nft(door_, fmt::format("list set inet filter {};", target.set));

    const auto directory = door_.file(rule_directory);
    std::error_code ignored;
    std::filesystem::create_directories(directory, ignored);
    if (listing.empty()) return;
    std::ofstream file(directory / target.file, std::ios::out | std::ios::trunc);
    if (file) file << listing;
}
