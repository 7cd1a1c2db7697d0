#include "mgmt_firewall.hpp"

#include <fmt/format.h>

#include <boost/filesystem.hpp>
#include <fstream>
#include <string>

#include "dh_error.hpp"
#include "msg_log.hpp"
#include "sysrepo_common.hpp"

namespace {

struct mgmt_set {
    const char* set;
    const char* file_format;
};

// A failing nft does not stop the update: exec has logged it, and its output counts as empty.
std::string run_nft(const std::string& statements) {
    try {
        return sysrepo_common::exec(fmt::format("echo '{}' | {} /usr/sbin/nft -f -", statements,
                                                sysrepo_common::NSENTER_CMD),
                                    true);
    } catch (const dh_error&) {
        return {};
    }
}

}  // namespace

void apply_mgmt_nft(const std::string& addresses, mgmt_ports port, const std::string& directory) {
    mgmt_set target;
    switch (port) {
        case mgmt_ports::e27:
            target = {"e27_ip_addresses", "{}/ruleset-e27-ip.nft"};
            break;
        case mgmt_ports::e28:
            target = {"e28_ip_addresses", "{}/ruleset-e28-ip.nft"};
            break;
        case mgmt_ports::mgmt:
            target = {"mgmt_ip_addresses", "{}/ruleset-mgmt-ip.nft"};
            break;
        default: {
            const std::string message = "Invalid interface for mgmt nft rule";
            MSG_LOG(3, "update_mgmt_nft") << message << msg_log::getCodeTrace(__FILE__, __LINE__);
            throw dh_error(-22, message);
        }
    }

    std::string statements = fmt::format("flush set inet filter {};", target.set);
    if (!addresses.empty())
        statements += fmt::format("add element inet filter {} {{{}}} ", target.set, addresses);
    run_nft(statements);
    const std::string listing = run_nft(fmt::format("list set inet filter {};", target.set));

    boost::filesystem::create_directories(directory);
    if (listing.empty()) return;
    std::ofstream file(fmt::format(fmt::runtime(target.file_format), directory),
                       std::ios::out | std::ios::trunc);
    if (file) file << listing;
}

void sysrepo_device_handler::update_mgmt_nft(const std::string& addresses, const mgmt_ports& port) {
    apply_mgmt_nft(addresses, port, mgmt_nft_directory);
}
