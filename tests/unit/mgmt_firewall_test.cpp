#include <string>

#include "handler_fixture.hpp"

namespace {

using MgmtFirewall = handler_test;

const std::string nft = ns + "/usr/sbin/nft -f -";
const std::string rule_dir = "/var/persistent/etc/nftables/";

TEST_F(MgmtFirewall, RefillsTheSetAndSavesItsListing) {
    fake->on("list set inet filter mgmt_ip_addresses",
             fake_executor::reply{0, "table inet filter { set mgmt_ip_addresses { } }\n"});
    handler->interfaces().update_mgmt_nft("10.0.0.5", mgmt_ports::mgmt);
    EXPECT_EQ(fake->inputs(nft), (texts{"flush set inet filter mgmt_ip_addresses;add element "
                                        "inet filter mgmt_ip_addresses {10.0.0.5} \n",
                                        "list set inet filter mgmt_ip_addresses;\n"}));
    EXPECT_EQ(root.read(rule_dir + "ruleset-mgmt-ip.nft"),
              "table inet filter { set mgmt_ip_addresses { } }\n");

    // An empty text only flushes; an empty listing leaves the file alone.
    fake->clear();
    handler->interfaces().update_mgmt_nft("", mgmt_ports::e27);
    EXPECT_EQ(fake->inputs(nft).front(), "flush set inet filter e27_ip_addresses;\n");
    EXPECT_EQ(root.read(rule_dir + "ruleset-e27-ip.nft"), "absent");

    // A failing nft is logged and the update goes on with the listing.
    fake->on("flush set inet filter e28", fake_executor::reply{256, ""});
    fake->on("list set inet filter e28", fake_executor::reply{0, "listing\n"});
    handler->interfaces().update_mgmt_nft("1.1.1.1", mgmt_ports::e28);
    EXPECT_EQ(root.read(rule_dir + "ruleset-e28-ip.nft"), "listing\n");

    fake->clear();
    EXPECT_EQ(error_of([&] {
                  handler->interfaces().update_mgmt_nft("1.1.1.1", static_cast<mgmt_ports>(3));
              }),
              "-22 Invalid interface for mgmt nft rule");
    EXPECT_TRUE(fake->calls().empty());
}

}  // namespace
