#include "sysrepo_common.hpp"

#include <climits>
#include <string>
#include <vector>

#include "handler_fixture.hpp"

namespace sc = sysrepo_common;

namespace {

TEST(AddressHelpers, NetmasksAndPrefixLengths) {
    // Out-of-range lengths clamp; the extremes must not shift by 32 or more.
    const std::pair<int, const char*> masks[] = {
        {INT_MIN, "0.0.0.0"},        {0, "0.0.0.0"},          {1, "128.0.0.0"},
        {17, "255.255.128.0"},       {31, "255.255.255.254"}, {32, "255.255.255.255"},
        {INT_MAX, "255.255.255.255"}};
    for (auto [n, mask] : masks) EXPECT_EQ(sc::prefix_length_to_netmask(n), mask) << n;

    // One-bits are counted per field; contiguity is not checked.
    const std::pair<const char*, int> lengths[] = {
        {"255.255.255.0.", 24}, {"", 0}, {"255.0.255.0", 16}, {"256", 0}, {" 255.+128", 9}};
    for (auto [mask, n] : lengths) EXPECT_EQ(sc::netmask_to_prefix_length(mask), n) << mask;
    for (const char* bad : {"255..0", "abc", ".255", "255.x"})
        EXPECT_THROW(sc::netmask_to_prefix_length(bad), std::invalid_argument) << bad;
    EXPECT_THROW(sc::netmask_to_prefix_length("255.99999999999"), std::out_of_range);
}

// Registration passes each tunnel sub-interface's VLAN beside its name: the two must agree.
TEST(Tables, TunnelVlanMatchesItsName) {
    for (const auto& t : sc::TUN_INTERFACES)
        EXPECT_EQ(std::to_string(t.vlan), t.name.substr(t.name.find('.') + 1)) << t.name;
    EXPECT_EQ(sc::IETH_INTERFACES.back(), sc::MGMT_INTERFACE);
}

}  // namespace
