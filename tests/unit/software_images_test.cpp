#include <mutex>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "handler_fixture.hpp"
#include "rauc_status.hpp"

namespace {

// `rauc status` in shell form (data/rauc_status.txt): slot 1 is "primary" (rootfs.0, version
// 2.3.1), slot 2 "secondary" (rootfs.1, version 2.4.0-rc1).
std::string rauc_text(const std::string& booted, int installed2, int activated2,
                      const std::string& status2 = "ok") {
    return fmt::format(fmt::runtime(data_file("rauc_status.txt")), fmt::arg("booted", booted),
                       fmt::arg("installed1", 7), fmt::arg("activated1", 7),
                       fmt::arg("status2", status2), fmt::arg("installed2", installed2),
                       fmt::arg("activated2", activated2));
}

TEST(RaucStatus, ShellFormLinesAndSlotDecisions) {
    const auto m =
        parse_rauc_status("A='one'\nno equals sign here\nB='x=y'\nC=plain\nA='two'\nD=''\nE=\n");
    EXPECT_EQ(m,
              (rauc::status_map{{"A", "two"}, {"B", "x=y"}, {"C", "lai"}, {"D", ""}, {"E", ""}}));

    // The install and switch tests below cover the usual target, counts and slots.
    auto s = parse_rauc_status(rauc_text("primary", 3, 2));
    EXPECT_EQ(rauc::counts_of(s, "tertiary").installed, 0);
    EXPECT_EQ(rauc::target_bootname(parse_rauc_status("RAUC_SLOTS='1'\n")), "primary");
    s["RAUC_SLOT_STATUS_INSTALLED_COUNT_2"] = "n/a";
    EXPECT_THROW(rauc::counts_of(s, "secondary"), std::invalid_argument);

    // Activation needs status ok and both counts one up, on the target's slot only.
    const auto confirmed = [](const std::string& text, const char* target, rauc::slot_counts c) {
        return rauc::activation_confirmed(parse_rauc_status(text), target, c);
    };
    EXPECT_FALSE(confirmed(rauc_text("primary", 4, 3), "secondary", {3, 3}));
    EXPECT_FALSE(confirmed(rauc_text("primary", 4, 4, "bad"), "secondary", {3, 3}));
    EXPECT_FALSE(confirmed(rauc_text("primary", 4, 4), "secondary", {6, 6}));
    EXPECT_TRUE(confirmed(rauc_text("primary", 4, 4), "primary", {6, 6}));

    s = parse_rauc_status(rauc_text("primary", 1, 1));
    s["RAUC_BOOT_PRIMARY"] = "rootfs.1";
    EXPECT_EQ(rauc::other_slot(s), "rootfs.0");
    s["RAUC_BOOT_PRIMARY"] = "rootfs.9";
    EXPECT_EQ(error_of([&] { rauc::other_slot(s); }),
              "-22 primary slot is not found in the slots list.");
    s["RAUC_SYSTEM_SLOTS"] = "rootfs.0";
    EXPECT_EQ(error_of([&] { rauc::other_slot(s); }), "-22 Failed to find slots list.");
}

// `rauc status` answers `before` on the first query and `after` later.
class Images : public handler_test {
  protected:
    void answer_status(std::string before, std::string after) {
        fake->on("rauc status --detailed", [this, before, after](const fake_executor::call&) {
            std::lock_guard lock(mutex);
            return fake_executor::reply{0, status_queries++ == 0 ? before : after};
        });
    }
    std::mutex mutex;
    int status_queries = 0;
};

TEST_F(Images, InstallIsVerifiedAndPassesEveryStatusText) {
    answer_status(rauc_text("primary", 3, 3), rauc_text("primary", 4, 4));
    texts seen;
    fake->on("rauc install", [&](const fake_executor::call&) {
        seen.push_back(handler->images().get_install_status());
        return fake_executor::reply{0, "installing\n"};  // lacks the success lines: warning only
    });
    EXPECT_TRUE(handler->images().boot_image(R"({"pkg":"http://host/b.raucb?v=2"})"));
    EXPECT_EQ(seen, texts{"Installing slot target : secondary"});

    // A string extra package runs its script first, in the daemon's own namespaces.
    fake->clear();
    status_queries = 0;
    fake->on("handle_extra_package.sh", [&](const fake_executor::call&) {
        seen.push_back(handler->images().get_install_status());
        return fake_executor::reply{};
    });
    EXPECT_TRUE(
        handler->images().boot_image(R"({"pkg":"http://h/b.raucb","extra":"http://h/e.sh"})"));
    const auto calls = fake->calls();
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[0].argv, (host::argv_t{"/bin/bash.bash", "/usr/bin/handle_extra_package.sh",
                                           "--url", "http://h/e.sh"}));
    EXPECT_FALSE(calls[0].opts.host_namespaces);
    EXPECT_EQ(calls[0].opts.output_file, "/var/persistent/log/upgrade.log");
    EXPECT_EQ(calls[2].cmd, ns + "rauc install http://h/b.raucb");
    EXPECT_EQ(seen.at(1), "Executing upgrade script");
}

TEST_F(Images, AFailedInstallIsNotVerified) {
    answer_status(rauc_text("primary", 3, 3), rauc_text("primary", 3, 3));
    fake->on("rauc install", fake_executor::reply{256, "error\n"});
    EXPECT_EQ(error_of([&] { handler->images().run_rauc_install_command("http://h/x"); }),
              "-5 Failed Installing to slot target : secondary, error: Failed to call: " + ns +
                  "rauc install http://h/x");
    EXPECT_EQ(handler->images().get_install_status(),
              "Failed Installing to slot target : secondary");
    EXPECT_EQ(fake->commands().size(), 2u);  // no second status query
}

TEST_F(Images, RefusedArgumentsRunNothing) {
    for (const std::string& url : std::vector<std::string>{
             "http://h/$(touch /tmp/x)", "http://h/`id`", "http://h/a;b", "http://h/a b",
             "http://h/a'b", "http://h/a\nb", "http://h/a\x7f", "http://h/{a}", "a|b", "--help"}) {
        const std::string message = "Failed to install image from url: " + url + ", invalid url.";
        EXPECT_EQ(error_of([&] { handler->images().boot_image(url); }), "-22 " + message);
        EXPECT_EQ(handler->images().get_install_status(), message);
    }
    for (const std::string doc : {R"({"pkg":5})", R"({"x":"u"})", R"(["u"])"})
        EXPECT_EQ(error_of([&] { handler->images().boot_image(doc); }),
                  "-22 Invalid document, missing 'pkg' field.")
            << doc;
    // The extra package is handled first: its refusal ends the operation before any install.
    for (const std::string extra : {"http://h/$(reboot)", "-rf"})
        EXPECT_EQ(
            error_of([&] {
                handler->images().boot_image(R"({"pkg":"http://h/ok","extra":")" + extra + "\"}");
            }),
            "-22 Failed to install image from url: " + extra + ", invalid url.");
    EXPECT_TRUE(fake->calls().empty());
}

// The failures name the slot that was chosen.
TEST_F(Images, SwitchImage) {
    fake->on("rauc status --detailed", fake_executor::reply{0, rauc_text("primary", 1, 1)});
    EXPECT_TRUE(handler->images().switch_image("rc1"));
    EXPECT_EQ(fake->commands().back(), ns + "rauc status mark-active rootfs.1");
    EXPECT_EQ(error_of([&] { handler->images().switch_image("7.0"); }),
              "-22 Failed to find the image with version: 7.0");

    fake->on("mark-active", fake_executor::reply{1, ""});
    EXPECT_EQ(error_of([&] { handler->images().switch_image("OtHeR"); }),
              "-5 Failed to switch image to slot: rootfs.1, error: Failed to call: " + ns +
                  "rauc status mark-active rootfs.1");
    EXPECT_EQ(error_of([&] { handler->images().switch_image("2.3"); }),
              "-5 Failed to switch image with version: 2.3, error: Failed to call: " + ns +
                  "rauc status mark-active rootfs.0");
    // Switching never touches the install status.
    EXPECT_EQ(handler->images().get_install_status(), "");
}

}  // namespace
