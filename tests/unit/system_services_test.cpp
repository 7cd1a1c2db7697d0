#include <cstdlib>
#include <string>
#include <vector>

#include "cli_text.hpp"
#include "handler_fixture.hpp"

namespace {

const std::string greeting = "See the 'help' command for an introduction to the system\n";

TEST(CliText, ShellCharactersQuotesAndControlCharactersAreRefused) {
    for (const char* ok : {"show ospf neighbor", "set datetime 2024-05-01T12:00:00+02:00Z", ""})
        EXPECT_TRUE(cli_text::is_allowed_command(ok)) << ok;
    for (char c : std::string(";|&`$(){}[]<>'\"\\\n\r\t\x1b\x7f"))
        EXPECT_FALSE(cli_text::is_allowed_command(std::string("show ") + c + "x")) << int(c);
    EXPECT_FALSE(cli_text::is_allowed_command(std::string("show\0x", 6)));

    EXPECT_TRUE(cli_text::has_date_time_form("2024-05-01 12:00:00"));
    EXPECT_TRUE(cli_text::has_date_time_form("2024-05-01 12:00:00.5+02:00"));
    for (const char* bad : {"2024-05-01 12:00:0", "2024-05-01T12:00:00", "2024/05/01 12:00:00",
                            "2024-05-01 12:00:0x", "x'; touch /tmp/canary; 'xxxxxxxx"})
        EXPECT_FALSE(cli_text::has_date_time_form(bad)) << bad;
}

using SystemServices = handler_test;

TEST_F(SystemServices, CliCommandRunsInKlishAndDropsTheGreeting) {
    fake->on("klish", fake_executor::reply{0, "Neighbor 10.0.0.2 Full\n" + greeting});
    EXPECT_EQ(handler->system().run_cli_command("show ospf neighbor"), "Neighbor 10.0.0.2 Full\n");
    EXPECT_EQ(fake->commands(), texts{ns + "/usr/bin/klish -c 'show ospf neighbor'"});

    fake->clear();
    for (const std::string cmd : {"show [x]", "x'; touch /tmp/canary; '", "show\nreboot"})
        EXPECT_EQ(error_of([&] { handler->system().run_cli_command(cmd); }),
                  "-22 Invalid cli command: \"" + cmd + "\".");
    EXPECT_TRUE(fake->calls().empty());
}

TEST_F(SystemServices, DateAndTimeGoThroughTheShell) {
    fake->on("show datetime iso",
             fake_executor::reply{0, "2026-11-21T10:00:00+00:00\n" + greeting});
    EXPECT_EQ(handler->system().get_date_time(), "2026-11-21 10:00:00");

    fake->clear();
    EXPECT_TRUE(handler->system().set_date_time("2024-05-01 12:00:00"));
    EXPECT_EQ(fake->commands(), (texts{ns + "/usr/bin/klish -c 'set datetime 2024-05-01T12:00:00Z'",
                                       "/etc/init.d/ntpd restart"}));
    EXPECT_TRUE(fake->calls().back().opts.detach);

    fake->clear();
    for (const std::string when : {"2024-05-01", "x'; touch /tmp/canary; 'xxxxxxxx"})
        EXPECT_EQ(error_of([&] { handler->system().set_date_time(when); }),
                  "-22 Unexpected format of date/time: " + when);
    // A well-formed start does not let a quote through in the tail.
    EXPECT_EQ(error_of([&] {
                  handler->system().set_date_time("2024-05-01 12:00:00'; touch /tmp/canary; '");
              }),
              "-22 Invalid cli command: \"set datetime 2024-05-01T12:00:00'; touch /tmp/canary; "
              "'Z\".");
    EXPECT_TRUE(fake->calls().empty());
}

TEST_F(SystemServices, AutomationModeFollowsTheControllerType) {
    const std::pair<const char*, const char*> cases[] = {
        {"managedIla", "managedILA"}, {"MANAGEDCLI", "managedCLI"}, {"other", "managedNetconf"}};
    for (auto [value, mode] : cases) {
        setenv("QMX_CONTROLLER_TYPE", value, 1);
        EXPECT_EQ(handler->system().get_automation_mode(), mode) << value;
    }
    unsetenv("QMX_CONTROLLER_TYPE");
    EXPECT_EQ(handler->system().get_automation_mode(), "managedNetconf");
    for (const std::string mode : {"managedila", "ILA", ""})
        EXPECT_EQ(error_of([&] { handler->system().set_automation_mode(mode); }),
                  "-22 Invalid automation mode: " + mode);
}

}  // namespace
