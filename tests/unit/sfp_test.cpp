#include <chrono>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "dh_error.hpp"
#include "ethtool_parse.hpp"
#include "fake_runner.hpp"
#include "log_capture.hpp"
#include "sfp_plus_data_reader.hpp"
#include "sysrepo_device_handler.hpp"

using namespace std::chrono_literals;

namespace {

const std::string ns = "nsenter -m/1/ns/mnt -u/1/ns/uts -i/1/ns/ipc -n/1/ns/net ";

std::string module_text(const std::string& rx_dbm = "-3.01", const std::string& temp = "45.00") {
    return "\tIdentifier                                : 0x03 (SFP)\n"
           "\tConnector                                 : 0x07 (LC)\n"
           "\tTransceiver type                          : 10G Ethernet: 10G Base-LR\n"
           "\tLength (SMF,km)                           : 10km\n"
           "\tLaser wavelength                          : 1310nm\n"
           "\tVendor name                               : OPTIC CORP\n"
           "\tVendor OUI                                : 00:90:65\n"
           "\tVendor PN                                 : OPT-10G-LR\n"
           "\tVendor rev                                : A2\n"
           "\tVendor SN                                 : SN123456\n"
           "\tLaser output power                        : 0.5483 mW / -2.61 dBm\n"
           "\tReceiver signal average optical power     : 0.5000 mW / " +
           rx_dbm +
           " dBm\n"
           "\tModule temperature                        : " +
           temp +
           " degrees C / 113.00 "
           "degrees F\n"
           "\tModule temperature high alarm threshold   : 75.00 degrees C / 167.00 degrees F\n"
           "\tLaser rx power low warning threshold      : 0.0200 mW / -16.99 dBm\n";
}

template <typename F>
dh_error catch_dh_error(F&& f) {
    try {
        f();
    } catch (const dh_error& e) {
        return e;
    }
    ADD_FAILURE() << "no dh_error thrown";
    return dh_error(0, "");
}

// ethtool -m answers from `modules` (port -> text); a port without text has no module.
struct sfp_fixture : ::testing::Test {
    sfp_fixture() {
        fake->on("ethtool -m", [this](const fake_runner::call& c) {
            std::lock_guard lock(mutex);
            for (const auto& [port, text] : modules)
                if (c.cmd == ns + " ethtool -m " + port + " 2>/dev/null")
                    return fake_runner::reply{0, text};
            return fake_runner::reply{1, ""};
        });
    }
    void set_module(const std::string& port, std::optional<std::string> text) {
        std::lock_guard lock(mutex);
        if (text)
            modules[port] = *text;
        else
            modules.erase(port);
    }
    std::size_t ethtool_runs(const std::string& port) {
        std::size_t n = 0;
        for (const auto& cmd : fake->commands()) n += cmd.find("-m " + port + " ") != cmd.npos;
        return n;
    }

    fake_runner::guard fake;
    std::mutex mutex;
    std::map<std::string, std::string> modules;
    dh_db db;
    std::shared_ptr<sfp_plus_data_reader> reader = std::make_shared<sfp_plus_data_reader>(db);
};

// The node's current answer as compact JSON, or "error <code> <text>".
std::string read_node(dh_db& db, const std::string& path) {
    auto node = db.find_leaf_node(path);
    if (!node) return "missing";
    rapidjson::Document d;
    dh::Value out;
    try {
        node->get(path, d.GetAllocator(), out);
    } catch (const dh_error& e) {
        return "error " + std::to_string(e.code()) + " " + e.message();
    }
    return dh::api::to_json_text(out);
}

bool eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

}  // namespace

TEST(EthtoolParse, ModuleTextAndNumbers) {
    const auto p = ethtool::parse_module_info(module_text() +
                                              "no colon in this line\n"
                                              "\tVendor rev : B1  \n");
    EXPECT_EQ(p.at("Vendor OUI"), "00:90:65");  // split at the first colon only
    EXPECT_EQ(p.at("Transceiver type"), "10G Ethernet: 10G Base-LR");
    EXPECT_EQ(p.at("Vendor rev"), "B1");  // a later line wins; blanks trimmed
    EXPECT_EQ(p.count("no colon in this line"), 0u);

    EXPECT_DOUBLE_EQ(ethtool::parse_number("0.5000 mW / -3.01 dBm", "dBm"), -3.01);
    EXPECT_DOUBLE_EQ(ethtool::parse_number("45.00 degrees C / 113.00 degrees F", "degrees C"),
                     45.0);
    EXPECT_DOUBLE_EQ(ethtool::parse_number("-1.50 degrees C / 29.30 degrees F", "degrees C"), -1.5);
    EXPECT_EQ(ethtool::parse_number("0.0000 mW / -inf dBm", "dBm"),
              -std::numeric_limits<double>::infinity());
    for (const char* illformed : {"0.5000 mW -3.01 dBm", "0.5000 mW / -3.01", "", "10km"}) {
        const auto e = catch_dh_error([&] { ethtool::parse_number(illformed, "dBm"); });
        EXPECT_EQ(e.code(), -22);
        EXPECT_EQ(e.message(), "illformed") << illformed;
    }
    EXPECT_THROW(ethtool::parse_number("x mW / n/a dBm", "dBm"), std::invalid_argument);
}

TEST(EthtoolParse, Description) {
    auto p = ethtool::parse_module_info(module_text());
    const auto lookup = [&](const std::string& name) { return p.at(name); };
    EXPECT_EQ(ethtool::compose_description(lookup), "SFP, 10G Base-LR, 1310nm, 10km, LC");
    p["Transceiver type"] = "Extended: 25GBASE-LR";
    EXPECT_EQ(ethtool::compose_description(lookup), "SFP28, 25GBASE-LR, 1310nm, 10km, LC");
    p["Transceiver type"] = "10G Ethernet: 10G Base-SR";
    p["Vendor PN"] = "XX-SFP28-SR";
    p["Connector"] = "LC";
    EXPECT_EQ(ethtool::compose_description(lookup), "SFP28, 10G Base-SR, 1310nm, 10km, LC");
    p.erase("Laser wavelength");
    EXPECT_THROW(ethtool::compose_description(lookup), std::out_of_range);
}

TEST_F(sfp_fixture, PropertyCacheAndErrors) {
    log_capture logs;
    set_module("e13", module_text());
    EXPECT_EQ(reader->parse_string_from_property("Vendor SN", "e13"), "SN123456");
    EXPECT_EQ(reader->parse_string_from_property("Vendor PN", "e13"), "OPT-10G-LR");
    EXPECT_THAT(fake->commands(),
                ::testing::ElementsAre(ns + " ethtool -m e13 2>/dev/null"));  // one run a second

    EXPECT_EQ(
        catch_dh_error([&] { reader->parse_string_from_property("Nothing", "e14"); }).message(),
        "Failed to get SFP info. Failed to call: " + ns + " ethtool -m e14 2>/dev/null");
    EXPECT_TRUE(logs.find("Failed to call").empty());  // an empty port is not an error

    set_module("e14", module_text());
    auto e = catch_dh_error([&] { reader->parse_string_from_property("Nothing", "e14"); });
    EXPECT_EQ(e.code(), -22);
    EXPECT_EQ(e.message(), "Could not find property in cache.");
    e = catch_dh_error([&] { reader->parse_string_from_property("Nothing", "e14"); });
    EXPECT_EQ(e.message(), "property not found");

    // After a second the text is read again.
    set_module("e13", module_text("-5.00"));
    ASSERT_TRUE(eventually([&] {
        return reader->parse_string_from_property("Receiver signal average optical power", "e13") ==
               "0.5000 mW / -5.00 dBm";
    }));
}

TEST_F(sfp_fixture, PowersAndMarginOfPresentModules) {
    set_module("e13", module_text("-40.00", "45.00"));
    set_module("e14", module_text("-39.99", "80.50"));
    // Nothing is read for a port the poll has not found a module in.
    EXPECT_EQ(catch_dh_error([&] { reader->get_power("Laser output power", "e13"); }).message(),
              "Failed to get SFP info. SFP+ e13 not present.");
    EXPECT_TRUE(fake->calls().empty());

    EXPECT_TRUE(reader->update_present("e13"));
    EXPECT_TRUE(reader->update_present("e14"));
    EXPECT_FALSE(reader->update_present("e15"));
    EXPECT_TRUE(reader->present("e13"));
    EXPECT_FALSE(reader->present("e15"));
    EXPECT_DOUBLE_EQ(reader->get_power("Receiver signal average optical power", "e13"), -99.0);
    EXPECT_DOUBLE_EQ(reader->get_power("Receiver signal average optical power", "e14"), -39.99);
    EXPECT_DOUBLE_EQ(reader->get_power("Laser rx power low warning threshold", "e13"), -16.99);
    EXPECT_DOUBLE_EQ(reader->get_temp_margin("e13"), 30.0);
    EXPECT_DOUBLE_EQ(reader->get_temp_margin("e14"), -5.5);
    EXPECT_EQ(reader->get_description("e13"), "SFP, 10G Base-LR, 1310nm, 10km, LC");

    set_module("e13", std::nullopt);
    EXPECT_FALSE(reader->update_present("e13"));
    EXPECT_FALSE(reader->present("e13"));
}

TEST_F(sfp_fixture, NodesFollowInsertionAndRemoval) {
    log_capture logs;
    set_module("e13", module_text());
    reader->init();
    EXPECT_EQ(db.size(), 40u);
    ASSERT_TRUE(eventually([&] { return read_node(db, "e13/sfp/present") == "true"; }));
    EXPECT_EQ(read_node(db, "e15/sfp/present"), "false");
    EXPECT_EQ(read_node(db, "e13/sfp/inventory/serialNumber"), R"("SN123456")");
    EXPECT_EQ(read_node(db, "e13/sfp/inventory/hwRevision"), R"("A2")");
    EXPECT_EQ(read_node(db, "e13/sfp/inventory/partName"), R"("OPT-10G-LR")");
    EXPECT_EQ(read_node(db, "e13/sfp/inventory/description"),
              R"("SFP, 10G Base-LR, 1310nm, 10km, LC")");
    EXPECT_EQ(read_node(db, "e13/sfp/inventory/fwRevision"), R"("")");
    EXPECT_EQ(read_node(db, "e15/sfp/inventory/serialNumber"), R"("")");
    ASSERT_TRUE(eventually([&] { return read_node(db, "data/e13/sfp/rxPower") == "-3.01"; }));
    ASSERT_TRUE(
        eventually([&] { return read_node(db, "data/e13/sfp/temperatureMargin") == "30.0"; }));
    EXPECT_EQ(read_node(db, "data/e13/sfp/txPower"), "-2.61");
    EXPECT_EQ(read_node(db, "data/e13/sfp/rxPowerLowWarningThreshold"), "-16.99");
    EXPECT_EQ(read_node(db, "data/e15/sfp/rxPower"), "error -61 Value has not been set");

    set_module("e15", module_text("-50.0"));
    ASSERT_TRUE(eventually([&] { return read_node(db, "data/e15/sfp/rxPower") == "-99.0"; }));
    EXPECT_EQ(read_node(db, "e15/sfp/inventory/serialNumber"), R"("SN123456")");
    EXPECT_EQ(logs.find("SFP+ e15 present.").size(), 1u);

    set_module("e13", std::nullopt);
    ASSERT_TRUE(eventually([&] { return read_node(db, "e13/sfp/present") == "false"; }));
    ASSERT_TRUE(
        eventually([&] { return read_node(db, "e13/sfp/inventory/serialNumber") == R"("")"; }));
    EXPECT_EQ(read_node(db, "e13/sfp/inventory/description"), R"("")");
    EXPECT_EQ(logs.find("SFP+ e13 not present.").size(), 1u);

    // The poll thread leaves at once when the reader goes.
    const auto t0 = std::chrono::steady_clock::now();
    reader.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 500ms);
}

TEST(MasterMargin, NoModuleMeansNoValue) {
    fake_runner::guard fake;
    dh_db db;
    auto handler = std::make_shared<sysrepo_device_handler>(db);
    const auto e = catch_dh_error([&] { handler->get_master_margin(); });
    EXPECT_EQ(e.code(), -61);
    EXPECT_EQ(e.message(), "Value has not been set");
}
