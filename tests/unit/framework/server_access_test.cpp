// Authenticated access: the TLS listener with client certificates, the roles they map to, and
// the role file itself. Certificates come from tests/tools/make-test-certs.sh, made once per run.

#include <cstdlib>

#include "dh_client.hpp"
#include "roles.hpp"
#include "server_test_support.hpp"

namespace server_test {
namespace {

using namespace dh::server;
using codec::method_id;

const std::string& cert_dir() {
    static const std::string dir = [] {
        const std::string d = make_temp_dir();
        const std::string cmd = std::string(TEST_TOOLS_DIR) + "/make-test-certs.sh " + d;
        if (std::system(cmd.c_str()) != 0) throw std::runtime_error("cannot make certificates");
        return d;
    }();
    return dir;
}

std::string cert(const std::string& name) {
    return cert_dir() + "/" + name;
}

const char* roles_json = R"({
    "certificates": {"CN=monitor,O=Test": "monitor", "CN=operator,O=Test": "operator",
                     "CN=admin,O=Test": "admin"}
})";

dh::server::options tls_options(bool plain_tcp) {
    return {
        .tls = dh::server::tls_options{0, cert("server.pem"), cert("server.key"), cert("ca.pem")},
        .plain_tcp = plain_tcp,
        .roles = std::make_shared<role_map>(role_map::parse(roles_json, "test")),
        .admin_only = {"command/reboot"}};
}

struct tls_server : test_server {
    explicit tls_server(bool plain_tcp = true) : test_server(tls_options(plain_tcp)) {
        add<value_node>(db, "config/x", false);
        add<tricky_node>(db, "command/reboot", true);
        serve();
    }

    dh::client::client as(const std::string& name) const {
        return dh::client::client::tls("127.0.0.1", std::to_string(srv.tls_port()),
                                       {name.empty() ? "" : cert(name + ".pem"),
                                        name.empty() ? "" : cert(name + ".key"), cert("ca.pem")},
                                       {.timeout = 5s});
    }
};

using dh::client::rpc_error;
// What the server answers a refused call, as the client library reports it.
const std::string denied = "error -32003: Permission denied";

TEST(server_tls, EachCertificateGetsTheRoleItIsMappedTo) {
    tls_server s;
    const rapidjson::Value one(1);
    auto monitor = s.as("monitor");
    EXPECT_STREQ(monitor.get("data/version").GetString(), "1.2.3");
    EXPECT_EQ(thrown<rpc_error>([&] { monitor.set("config/x", one); }), denied);

    auto op = s.as("operator");
    op.set("config/x", one);
    EXPECT_EQ(thrown<rpc_error>([&] { op.run("command/reboot", one); }), denied);
    // Refused before the path is looked up, so roles do not reveal which nodes exist.
    EXPECT_EQ(thrown<rpc_error>([&] { monitor.set("no/such/node", one); }), denied);

    auto admin = s.as("admin");
    EXPECT_EQ(admin.run("command/reboot", one)["echo"].GetInt(), 1);

    // The history names who made the change.
    EXPECT_STREQ(admin.history(1)[0]["who"].GetString(), "CN=operator,O=Test");

    // Plain TCP clients get the role file's plainTcp role, monitor by default.
    auto plain = dh::client::client::tcp("127.0.0.1", std::to_string(s.srv.tcp_port()));
    EXPECT_STREQ(plain.get("data/version").GetString(), "1.2.3");
    EXPECT_EQ(thrown<rpc_error>([&] { plain.set("config/x", one); }), denied);
}

TEST(server_tls, OnlyTrustedCertificatesGetInAndPlainTcpCanBeOff) {
    tls_server s(false);
    auto try_get = [&](const std::string& name) { s.as(name).get("data/version"); };
    // With TLS 1.3 the refusal may come with the handshake or with the first read.
    EXPECT_THROW(try_get(""), dh::client::connection_error);
    EXPECT_THROW(try_get("rogue"), dh::client::connection_error);
    // A client that speaks no TLS at all gets nothing either.
    auto raw = line_client::tcp(s.srv.tls_port());
    ASSERT_TRUE(raw.send_line(req("1", "get", R"({"path":"data/version"})")));
    EXPECT_TRUE(raw.closed_by_peer());
    EXPECT_STREQ(s.as("monitor").get("data/version").GetString(), "1.2.3");

    // Without plain TCP: no TCP or IPv6 listener, the Unix socket stays (it answers whatever the
    // role of the user running the test).
    EXPECT_EQ(s.srv.tcp_port(), 0u);
    s.srv.start_ipv6_socket("lo");
    EXPECT_EQ(s.srv.ipv6_port(), 0u);
    auto local = s.connect();
    EXPECT_TRUE(local.send_line(req("1", "get", R"({"path":"data/version"})")) &&
                local.read_line());
}

TEST(roles, WhatEachRoleMayCall) {
    const std::vector<std::string> admin_only = {"command/reboot"};
    const method_id reads[] = {method_id::get,  method_id::subscribe, method_id::unsubscribe,
                               method_id::info, method_id::list,      method_id::history};
    for (const auto m : reads) {
        EXPECT_FALSE(permits(role::none, m, "a/b", admin_only));
        EXPECT_TRUE(permits(role::monitor, m, "a/b", admin_only));
        EXPECT_TRUE(permits(role::monitor, m, "command/reboot", admin_only));
    }
    for (const auto m : {method_id::set, method_id::run}) {
        EXPECT_FALSE(permits(role::monitor, m, "config/x", admin_only));
        EXPECT_TRUE(permits(role::operator_, m, "config/x", admin_only));
        EXPECT_FALSE(permits(role::operator_, m, "command/reboot", admin_only));
        EXPECT_TRUE(permits(role::admin, m, "command/reboot", admin_only));
    }
}

TEST(roles, RoleFileIsCheckedAndApplied) {
    const auto m = role_map::parse(
        R"({"certificates": {"CN=a": "admin"}, "users": {"no-such-user-here": "admin"},
            "plainTcp": "operator"})",
        "f");
    EXPECT_EQ(m.for_subject("CN=a"), role::admin);
    EXPECT_EQ(m.for_subject("CN=A"), role::none);
    EXPECT_EQ(m.for_plain_tcp(), role::operator_);
    EXPECT_EQ(m.for_unix(0, 0), role::admin);
    EXPECT_EQ(m.for_unix(65534, 65534), role::none);
    EXPECT_EQ(role_map::parse("{}", "f").for_plain_tcp(), role::monitor);

    for (const char* bad : {R"({"certificates": {"CN=a": "root"}})", R"({"user": {}})",
                            R"({"groups": []})", R"({"plainTcp": 1})", "[]", "{"})
        EXPECT_THROW(role_map::parse(bad, "f"), std::runtime_error) << bad;
    EXPECT_THROW(role_map::load("/nonexistent/roles.json"), std::runtime_error);
}

}  // namespace
}  // namespace server_test
