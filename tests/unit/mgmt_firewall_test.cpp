#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include "handler_fixture.hpp"
#include "mgmt_firewall.hpp"

namespace fs = boost::filesystem;

namespace {

class MgmtFirewall : public handler_test {
  protected:
    fs::path dir = fs::temp_directory_path() / fs::unique_path("mgmt-nft-%%%%%%%%");
    ~MgmtFirewall() override { fs::remove_all(dir); }

    std::string read(const std::string& file) {
        std::ifstream in((dir / file).string());
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
    static std::string nft(const std::string& statements) {
        return "echo '" + statements + "' | " + ns + " /usr/sbin/nft -f -";
    }
};

TEST_F(MgmtFirewall, RefillsTheSetAndSavesItsListing) {
    fake->on("list set inet filter mgmt_ip_addresses",
             fake_runner::reply{0, "table inet filter { set mgmt_ip_addresses { } }\n"});
    apply_mgmt_nft("10.0.0.5", mgmt_ports::mgmt, (dir / "nftables").string() + "/");
    EXPECT_EQ(fake->commands(), (texts{nft("flush set inet filter mgmt_ip_addresses;add element "
                                           "inet filter mgmt_ip_addresses {10.0.0.5} "),
                                       nft("list set inet filter mgmt_ip_addresses;")}));
    EXPECT_EQ(read("nftables/ruleset-mgmt-ip.nft"),
              "table inet filter { set mgmt_ip_addresses { } }\n");

    // An empty text only flushes; an empty listing leaves the file alone.
    fake->clear();
    apply_mgmt_nft("", mgmt_ports::e27, dir.string());
    EXPECT_EQ(fake->commands().front(), nft("flush set inet filter e27_ip_addresses;"));
    EXPECT_FALSE(fs::exists(dir / "ruleset-e27-ip.nft"));

    // A failing nft is logged and the update goes on with the listing.
    fake->on("flush set inet filter e28", fake_runner::reply{256, ""});
    fake->on("list set inet filter e28", fake_runner::reply{0, "listing\n"});
    apply_mgmt_nft("1.1.1.1", mgmt_ports::e28, dir.string());
    EXPECT_EQ(read("ruleset-e28-ip.nft"), "listing\n");

    fake->clear();
    EXPECT_EQ(error_of([&] { handler->update_mgmt_nft("1.1.1.1", static_cast<mgmt_ports>(3)); }),
              "-22 Invalid interface for mgmt nft rule");
    EXPECT_TRUE(fake->calls().empty());
}

}  // namespace
