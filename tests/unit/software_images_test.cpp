#include <memory>
#include <mutex>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "dh_error.hpp"
#include "fake_runner.hpp"
#include "log_capture.hpp"
#include "rauc_status.hpp"
#include "sysrepo_device_handler.hpp"

namespace {

const std::string ns = "nsenter -m/1/ns/mnt -u/1/ns/uts -i/1/ns/ipc -n/1/ns/net ";
const std::string status_cmd = ns + "rauc status --detailed --output-format=shell";

// Two slots in RAUC's shell form; the counts and the booted slot are filled in.
std::string rauc_text(const std::string& booted, int installed1, int activated1,
                      const std::string& status1 = "ok") {
    return "RAUC_SYSTEM_COMPATIBLE='qmx'\n"
           "RAUC_SYSTEM_BOOTED_BOOTNAME='" +
           booted +
           "'\n"
           "RAUC_BOOT_PRIMARY='rootfs.0'\n"
           "RAUC_SYSTEM_SLOTS='rootfs.0 rootfs.1'\n"
           "RAUC_SLOTS='1 2'\n"
           "RAUC_SLOT_BOOTNAME_1='primary'\n"
           "RAUC_SLOT_STATUS_STATUS_1='ok'\n"
           "RAUC_SLOT_STATUS_INSTALLED_COUNT_1='7'\n"
           "RAUC_SLOT_STATUS_ACTIVATED_COUNT_1='7'\n"
           "RAUC_SLOT_STATUS_BUNDLE_DESCRIPTION_1='QMX system 2.3.1'\n"
           "RAUC_SLOT_STATUS_BUNDLE_VERSION_1='2.3.1'\n"
           "RAUC_SLOT_BOOTNAME_2='secondary'\n"
           "RAUC_SLOT_STATUS_STATUS_2='" +
           status1 +
           "'\n"
           "RAUC_SLOT_STATUS_INSTALLED_COUNT_2='" +
           std::to_string(installed1) +
           "'\n"
           "RAUC_SLOT_STATUS_ACTIVATED_COUNT_2='" +
           std::to_string(activated1) +
           "'\n"
           "RAUC_SLOT_STATUS_BUNDLE_DESCRIPTION_2='QMX system'\n"
           "RAUC_SLOT_STATUS_BUNDLE_VERSION_2='2.4.0-rc1'\n";
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

// A handler whose `rauc status` answers `before` on the first query and `after` later.
struct install_fixture : ::testing::Test {
    void answer_status(std::string before, std::string after) {
        fake->on("rauc status --detailed", [this, before, after](const fake_runner::call&) {
            std::lock_guard lock(mutex);
            return fake_runner::reply{0, status_queries++ == 0 ? before : after};
        });
    }

    fake_runner::guard fake;
    dh_db db;
    std::shared_ptr<sysrepo_device_handler> handler = std::make_shared<sysrepo_device_handler>(db);
    std::mutex mutex;
    int status_queries = 0;
};

const std::string good_output = "installing\n100% Installing done.\nInstalling `u' succeeded\n";

}  // namespace

TEST(RaucStatus, ParsesShellFormLines) {
    const auto m = parse_rauc_status(
        "A='one'\n"
        "no equals sign here\n"
        "B='x=y'\n"
        "C=plain\n"
        "A='two'\n"
        "D=''\n"
        "E=\n");
    EXPECT_EQ(m.at("A"), "two");  // a later line overwrites
    EXPECT_EQ(m.at("B"), "x=y");  // split at the first "="
    EXPECT_EQ(m.at("C"), "lai");  // unquoted values lose their first and last character
    EXPECT_EQ(m.at("D"), "");
    EXPECT_EQ(m.at("E"), "");
    EXPECT_EQ(m.size(), 5u);
}

TEST(RaucStatus, TargetSlotAndCounts) {
    auto m = parse_rauc_status(rauc_text("primary", 3, 2));
    EXPECT_EQ(rauc::target_bootname(m), "secondary");
    const auto counts = rauc::counts_of(m, "secondary");
    EXPECT_EQ(counts.installed, 3);
    EXPECT_EQ(counts.activated, 2);
    EXPECT_EQ(rauc::counts_of(m, "tertiary").installed, 0);

    EXPECT_EQ(rauc::target_bootname(parse_rauc_status(rauc_text("secondary", 0, 0))), "primary");
    EXPECT_EQ(rauc::target_bootname(parse_rauc_status("RAUC_SLOTS='1'\n")), "primary");

    m["RAUC_SLOT_STATUS_INSTALLED_COUNT_2"] = "n/a";
    EXPECT_THROW(rauc::counts_of(m, "secondary"), std::invalid_argument);
}

TEST(RaucStatus, ActivationNeedsOkAndBothCountsOneUp) {
    const rauc::slot_counts before{3, 3};
    EXPECT_TRUE(rauc::activation_confirmed(parse_rauc_status(rauc_text("primary", 4, 4)),
                                           "secondary", before));
    EXPECT_FALSE(rauc::activation_confirmed(parse_rauc_status(rauc_text("primary", 4, 3)),
                                            "secondary", before));
    EXPECT_FALSE(rauc::activation_confirmed(parse_rauc_status(rauc_text("primary", 5, 5)),
                                            "secondary", before));
    EXPECT_FALSE(rauc::activation_confirmed(parse_rauc_status(rauc_text("primary", 4, 4, "bad")),
                                            "secondary", before));
    // Only the target's slot counts: the other slot's counts (7 and 7) do not confirm it.
    EXPECT_FALSE(rauc::activation_confirmed(parse_rauc_status(rauc_text("primary", 4, 4)),
                                            "secondary", {6, 6}));
    EXPECT_TRUE(rauc::activation_confirmed(parse_rauc_status(rauc_text("primary", 4, 4)), "primary",
                                           {6, 6}));
}

TEST(RaucStatus, SwitchTargets) {
    auto m = parse_rauc_status(rauc_text("primary", 1, 1));
    EXPECT_EQ(rauc::other_slot(m), "rootfs.1");
    m["RAUC_BOOT_PRIMARY"] = "rootfs.1";
    EXPECT_EQ(rauc::other_slot(m), "rootfs.0");
    m["RAUC_BOOT_PRIMARY"] = "rootfs.9";
    EXPECT_EQ(catch_dh_error([&] { rauc::other_slot(m); }).message(),
              "primary slot is not found in the slots list.");
    m["RAUC_SYSTEM_SLOTS"] = "rootfs.0";
    EXPECT_EQ(catch_dh_error([&] { rauc::other_slot(m); }).code(), -22);
    EXPECT_EQ(catch_dh_error([&] { rauc::other_slot(m); }).message(), "Failed to find slots list.");

    m = parse_rauc_status(rauc_text("primary", 1, 1));
    EXPECT_EQ(rauc::slot_with_version(m, "2.3"), "rootfs.0");       // in the description
    EXPECT_EQ(rauc::slot_with_version(m, "2.4.0-rc"), "rootfs.1");  // in the version only
    EXPECT_EQ(rauc::slot_with_version(m, "9.9"), std::nullopt);
}

TEST_F(install_fixture, InstallIsVerifiedAndPassesEveryStatusText) {
    answer_status(rauc_text("primary", 3, 3), rauc_text("primary", 4, 4));
    std::vector<std::string> seen;
    fake->on("rauc install", [&](const fake_runner::call&) {
        seen.push_back(handler->get_install_status());
        return fake_runner::reply{0, "installing\n"};  // lacks the success lines: warning only
    });
    log_capture logs;
    EXPECT_TRUE(handler->boot_image(R"({"pkg":"http://host/b.raucb?v=2"})"));
    EXPECT_THAT(fake->commands(),
                ::testing::ElementsAre(status_cmd, ns + "rauc install http://host/b.raucb?v=2",
                                       status_cmd));
    EXPECT_THAT(seen, ::testing::ElementsAre("Installing slot target : secondary"));
    EXPECT_EQ(handler->get_install_status(),
              "Succsessfully verified the activation of the installation to slot target : "
              "secondary");
    const auto warning =
        logs.find("Failed verifing the installation output message to slot target : secondary");
    ASSERT_EQ(warning.size(), 1u);
    EXPECT_EQ(warning[0].severity, 4);
    EXPECT_EQ(logs.find("Installing pell image from url: http://host/b.raucb?v=2").size(), 1u);
}

TEST_F(install_fixture, InstallThatDoesNotActivateFails) {
    // Booted from secondary: the target is primary, whose counts (7, 7) must become (8, 8).
    const auto before = rauc_text("secondary", 0, 0);
    auto after = before;
    after.replace(after.find("INSTALLED_COUNT_1='7'"), 21, "INSTALLED_COUNT_1='8'");
    answer_status(before, after);
    fake->on("rauc install", fake_runner::reply{0, good_output});
    const auto e = catch_dh_error([&] { handler->boot_image("http://host/a.raucb"); });
    const std::string text =
        "Failed verified the activation of the installation to slot target : primary";
    EXPECT_EQ(e.code(), -5);
    EXPECT_EQ(e.message(), text);
    EXPECT_EQ(handler->get_install_status(), text);
}

TEST_F(install_fixture, FailingInstallCommand) {
    answer_status(rauc_text("primary", 3, 3), rauc_text("primary", 3, 3));
    fake->on("rauc install", fake_runner::reply{256, "error\n"});
    const auto e = catch_dh_error([&] { handler->run_rauc_install_command("http://h/x"); });
    EXPECT_EQ(e.code(), -5);
    EXPECT_EQ(e.message(), "Failed Installing to slot target : secondary, error: Failed to call: " +
                               ns + "rauc install http://h/x");
    EXPECT_EQ(handler->get_install_status(), "Failed Installing to slot target : secondary");
    EXPECT_EQ(fake->commands().size(), 2u);  // no second status query
}

TEST_F(install_fixture, RefusedArgumentsRunNothing) {
    for (const std::string& url : std::vector<std::string>{
             "http://h/$(touch /tmp/x)", "http://h/`id`", "http://h/a;b", "http://h/a b",
             "http://h/a'b", "http://h/a\"b", "http://h/a\\b", "http://h/a\nb", "http://h/a\tb",
             std::string("http://h/a\x01") + "b", "http://h/a\x7f", "http://h/{a}", "a|b", "a>b"}) {
        const auto e = catch_dh_error([&] { handler->boot_image(url); });
        EXPECT_EQ(e.code(), -22) << url;
        EXPECT_EQ(e.message(), "Failed to install image from url: " + url + ", invalid url.");
        EXPECT_EQ(handler->get_install_status(), e.message());
    }
    for (const std::string doc : {R"({"pkg":5})", R"({"x":"u"})", R"(["u"])", R"("u")"}) {
        const auto e = catch_dh_error([&] { handler->boot_image(doc); });
        EXPECT_EQ(e.code(), -22) << doc;
        EXPECT_EQ(e.message(), "Invalid document, missing 'pkg' field.");
    }
    // The extra package is handled first: its refusal ends the operation before any install.
    const auto e = catch_dh_error(
        [&] { handler->boot_image(R"j({"pkg":"http://h/ok","extra":"http://h/$(reboot)"})j"); });
    EXPECT_EQ(e.message(), "Failed to install image from url: http://h/$(reboot), invalid url.");
    EXPECT_TRUE(fake->calls().empty());
}

TEST_F(install_fixture, ExtraOfOtherTypeIsIgnoredAndBracketsPass) {
    answer_status(rauc_text("primary", 3, 3), rauc_text("primary", 4, 4));
    fake->on("rauc install", fake_runner::reply{0, good_output});
    EXPECT_TRUE(handler->boot_image(R"({"pkg":"http://[2001:db8::1]/b.raucb","extra":1})"));
    EXPECT_EQ(fake->commands().at(1), ns + "rauc install http://[2001:db8::1]/b.raucb");
}

TEST_F(install_fixture, SwitchImage) {
    fake->on("rauc status --detailed", fake_runner::reply{0, rauc_text("primary", 1, 1)});
    EXPECT_TRUE(handler->switch_image("OtHeR"));
    EXPECT_TRUE(handler->switch_image("rc1"));
    EXPECT_THAT(fake->commands(),
                ::testing::ElementsAre(status_cmd, ns + "rauc status mark-active rootfs.1",
                                       status_cmd, ns + "rauc status mark-active rootfs.1"));

    const auto missing = catch_dh_error([&] { handler->switch_image("7.0"); });
    EXPECT_EQ(missing.code(), -22);
    EXPECT_EQ(missing.message(), "Failed to find the image with version: 7.0");

    fake->on("mark-active", fake_runner::reply{1, ""});
    const auto failed = catch_dh_error([&] { handler->switch_image("other"); });
    EXPECT_EQ(failed.code(), -5);
    EXPECT_EQ(failed.message(),
              "Failed to switch image to slot: rootfs.1, error: Failed to call: " + ns +
                  "rauc status mark-active rootfs.1");
    const auto failed_version = catch_dh_error([&] { handler->switch_image("2.3.1"); });
    EXPECT_EQ(failed_version.message(),
              "Failed to switch image with version: 2.3.1, error: Failed to call: " + ns +
                  "rauc status mark-active rootfs.0");
    // Switching never touches the install status.
    EXPECT_EQ(handler->get_install_status(), "");
}
