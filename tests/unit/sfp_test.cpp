#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>

#include "ethtool_parse.hpp"
#include "handler_fixture.hpp"
#include "sfp.hpp"

namespace {

// data/ethtool_module.txt (what `ethtool -m` prints for a 10G LR module) with the received power
// and the temperature given.
std::string module_text(const std::string& rx_dbm = "-3.01", const std::string& temp = "45.00") {
    std::string text = data_file("ethtool_module.txt");
    text.replace(text.find("-3.01 dBm"), 5, rx_dbm);
    text.replace(text.find("45.00 degrees C"), 5, temp);
    return text;
}

TEST(EthtoolParse, ModuleTextNumbersAndDescription) {
    auto p =
        ethtool::parse_module_info(module_text() + "no colon in this line\n\tVendor rev : B1 \n");
    EXPECT_EQ(p.at("Vendor OUI"), "00:90:65");  // split at the first colon only
    EXPECT_EQ(p.at("Vendor rev"), "B1");        // a later line wins; blanks trimmed
    EXPECT_EQ(p.count("no colon in this line"), 0u);

    EXPECT_DOUBLE_EQ(ethtool::parse_number("-1.50 degrees C / 29.30 degrees F", "degrees C"), -1.5);
    EXPECT_EQ(ethtool::parse_number("0.0000 mW / -inf dBm", "dBm"),
              -std::numeric_limits<double>::infinity());
    for (const char* illformed : {"0.5000 mW -3.01 dBm", "0.5000 mW / -3.01", "", "10km"})
        EXPECT_EQ(error_of([&] { ethtool::parse_number(illformed, "dBm"); }), "-22 illformed");

    // The plain SFP description shows in the inventory nodes below.
    const auto lookup = [&](const std::string& name) { return p.at(name); };
    p["Transceiver type"] = "Extended: 25GBASE-LR";
    EXPECT_EQ(ethtool::compose_description(lookup), "SFP28, 25GBASE-LR, 1310nm, 10km, LC");
    p.erase("Laser wavelength");
    EXPECT_THROW(ethtool::compose_description(lookup), std::out_of_range);
}

// `ethtool -m PORT` answers from `modules` (port -> text); a port without text has no module.
class Sfp : public handler_test {
  protected:
    Sfp() {
        fake->on("ethtool -m", [this](const fake_executor::call& c) {
            std::lock_guard lock(mutex);
            for (const auto& [port, text] : modules)
                if (c.cmd == ns + "ethtool -m " + port && !text.empty())
                    return fake_executor::reply{0, text};
            return fake_executor::reply{1, ""};
        });
    }
    void set_module(const std::string& port, const std::string& text) {
        std::lock_guard lock(mutex);
        modules[port] = text;
    }

    std::mutex mutex;
    std::map<std::string, std::string> modules;
    std::shared_ptr<sfp_plus_data_reader> reader =
        std::make_shared<sfp_plus_data_reader>(db, handler->door(), sched);
};

TEST_F(Sfp, PropertyCacheAndErrors) {
    set_module("e13", module_text());
    EXPECT_EQ(reader->parse_string_from_property("Vendor SN", "e13"), "SN123456");
    // One run a second at most.
    EXPECT_THAT(fake->commands(), ::testing::ElementsAre(ns + "ethtool -m e13"));

    EXPECT_EQ(error_of([&] { reader->parse_string_from_property("Nothing", "e14"); }),
              "-22 Failed to get SFP info. Failed to call: " + ns + "ethtool -m e14");
    set_module("e14", module_text());
    EXPECT_EQ(error_of([&] { reader->parse_string_from_property("Nothing", "e14"); }),
              "-22 Could not find property in cache.");
    EXPECT_EQ(error_of([&] { reader->parse_string_from_property("Nothing", "e14"); }),
              "-22 property not found");

    // What ethtool printed serves for one second.
    set_module("e13", module_text("-5.00"));
    const std::string rx = "Receiver signal average optical power";
    sched.advance(999ms);
    EXPECT_NE(reader->parse_string_from_property(rx, "e13"), "0.5000 mW / -5.00 dBm");
    sched.advance(1ms);
    EXPECT_EQ(reader->parse_string_from_property(rx, "e13"), "0.5000 mW / -5.00 dBm");
}

TEST_F(Sfp, PowersAndMarginOfPresentModules) {
    set_module("e13", module_text("-40.00", "45.00"));
    set_module("e14", module_text("-39.99", "80.50"));
    // Nothing is read for a port the poll has not found a module in.
    EXPECT_EQ(error_of([&] { reader->get_power("Laser output power", "e13"); }),
              "-22 Failed to get SFP info. SFP+ e13 not present.");
    EXPECT_EQ(error_of([&] { reader->get_master_margin(); }), "-61 Value has not been set");
    EXPECT_TRUE(fake->calls().empty());

    EXPECT_TRUE(reader->update_present("e13"));
    EXPECT_TRUE(reader->update_present("e14"));
    EXPECT_FALSE(reader->update_present("e15"));
    EXPECT_DOUBLE_EQ(reader->get_power("Receiver signal average optical power", "e13"), -99.0);
    EXPECT_DOUBLE_EQ(reader->get_power("Receiver signal average optical power", "e14"), -39.99);
    EXPECT_DOUBLE_EQ(reader->get_temp_margin("e14"), -5.5);
    // The device's margin is that of its warmest present module.
    EXPECT_DOUBLE_EQ(reader->get_master_margin(), -5.5);
    set_module("e14", "");
    EXPECT_FALSE(reader->update_present("e14"));
    EXPECT_DOUBLE_EQ(reader->get_master_margin(), 30.0);
}

TEST_F(Sfp, LastReadingsComeFromWhatTheReaderHoldsWithoutEthtool) {
    set_module("e13", module_text() +
                          "\tModule voltage : 3.3010 V\n\tLaser bias current : 35.120 mA\n"
                          "\tOdd : 12 mAh\n");
    reader->update_present("e13");
    const auto runs = fake->calls().size();

    // The values in base units are checked on the metrics endpoint in the simulated device.
    EXPECT_EQ(reader->last_reading("e13", "Module voltage", "V"), 3.301);
    for (const auto& [property, unit] : std::map<std::string, std::string>{
             {"Odd", "mA"}, {"Module voltage", "mV"}, {"Vendor SN", "V"}, {"Nothing", "V"}})
        EXPECT_EQ(reader->last_reading("e13", property, unit), std::nullopt) << property;
    EXPECT_EQ(fake->calls().size(), runs);

    set_module("e13", "");
    reader->update_present("e13");
    EXPECT_EQ(reader->last_reading("e13", "Module voltage", "V"), std::nullopt);
}

TEST_F(Sfp, NodesFollowInsertionAndRemoval) {
    set_module("e13", module_text());
    reader->init();
    EXPECT_EQ(db.size(), 40u + 1);  // and the handler's data/configStatus
    EXPECT_EQ(read_node(db, "e13/sfp/present"), "false");
    reader->poll();
    EXPECT_EQ(read_node(db, "e13/sfp/present"), "true");
    EXPECT_EQ(read_node(db, "e15/sfp/present"), "false");
    EXPECT_EQ(read_node(db, "e13/sfp/inventory/serialNumber"), R"("SN123456")");
    EXPECT_EQ(read_node(db, "e13/sfp/inventory/description"),
              R"("SFP, 10G Base-LR, 1310nm, 10km, LC")");
    // The readings are polled from the group's first tick, half a second after they joined,
    // and then every two seconds.
    sched.advance(499ms);
    EXPECT_EQ(read_node(db, "data/e13/sfp/rxPower"), "error -61 Value has not been set");
    sched.advance(1ms);
    EXPECT_EQ(read_node(db, "data/e13/sfp/rxPower"), "-3.01");
    EXPECT_EQ(read_node(db, "data/e15/sfp/rxPower"), "error -61 Value has not been set");

    set_module("e15", module_text("-50.0"));
    reader->poll();
    sched.advance(1s);
    EXPECT_EQ(read_node(db, "data/e15/sfp/rxPower"), "error -61 Value has not been set");
    sched.advance(1s);
    EXPECT_EQ(read_node(db, "data/e15/sfp/rxPower"), "-99.0");
    EXPECT_EQ(read_node(db, "e15/sfp/inventory/serialNumber"), R"("SN123456")");

    set_module("e13", "");
    reader->poll();
    EXPECT_EQ(read_node(db, "e13/sfp/present"), "false");
    EXPECT_EQ(read_node(db, "e13/sfp/inventory/serialNumber"), R"("")");
}

TEST_F(Sfp, TheInventoryComesFromTheLookThatFoundTheModule) {
    reader->init();
    // ethtool answers the look that finds the module, then fails: the inventory is still read.
    set_module("e13", module_text());
    int runs = 0;
    fake->on("ethtool -m e13", [&](const fake_executor::call&) {
        return fake_executor::reply{++runs == 1 ? 0 : 1, runs == 1 ? module_text() : ""};
    });
    EXPECT_TRUE(reader->update_present("e13"));
    EXPECT_EQ(read_node(db, "e13/sfp/present"), "true");
    EXPECT_EQ(read_node(db, "e13/sfp/inventory/serialNumber"), R"("SN123456")");
}

}  // namespace
