#include "metrics.hpp"

#include <algorithm>
#include <array>
#include <charconv>

#include <prometheus/counter.h>
#include <prometheus/exposer.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>
#include <boost/asio/ip/address.hpp>

#include "dh_error.hpp"

namespace metrics {

namespace {

using prometheus::Counter;
using prometheus::Family;
using prometheus::Gauge;
using prometheus::Histogram;

// Host commands take from a millisecond (a file tool) to half a minute (a datastore import at
// its limit); requests from microseconds (a constant) to as long as the command behind them.
const Histogram::BucketBoundaries command_buckets{0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1,
                                                  0.25,  0.5,    1,     2.5,  5,     10,   30};
const Histogram::BucketBoundaries request_buckets{
    0.0001, 0.00025, 0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 2.5, 10};

struct instruments {
    std::shared_ptr<prometheus::Registry> registry = std::make_shared<prometheus::Registry>();

    Family<Counter>& host_commands = prometheus::BuildCounter()
                                         .Name("dh_host_commands_total")
                                         .Help("Host commands run, by tool and outcome.")
                                         .Register(*registry);
    Family<Histogram>& host_command_seconds =
        prometheus::BuildHistogram()
            .Name("dh_host_command_duration_seconds")
            .Help("Time from the start of a host command to its end, by tool.")
            .Register(*registry);
    Family<Counter>& imports = prometheus::BuildCounter()
                                   .Name("dh_datastore_imports_total")
                                   .Help("Datastore imports, by datastore and outcome.")
                                   .Register(*registry);
    Family<Counter>& requests = prometheus::BuildCounter()
                                    .Name("dh_requests_total")
                                    .Help("Requests answered, by method and outcome.")
                                    .Register(*registry);
    Family<Histogram>& request_seconds =
        prometheus::BuildHistogram()
            .Name("dh_request_duration_seconds")
            .Help("Time from a request's arrival to its answer, by method.")
            .Register(*registry);
    Family<Gauge>& connections = prometheus::BuildGauge()
                                     .Name("dh_connections_open")
                                     .Help("Client connections open, by listener.")
                                     .Register(*registry);
    Counter& events = prometheus::BuildCounter()
                          .Name("dh_events_sent_total")
                          .Help("Events written to subscribers.")
                          .Register(*registry)
                          .Add({});
    Counter& slow_cut = prometheus::BuildCounter()
                            .Name("dh_slow_subscribers_cut_total")
                            .Help("Subscribers disconnected for not reading their events.")
                            .Register(*registry)
                            .Add({});
};

// Never destroyed: code running during the process's exit may still count.
instruments& the() {
    static auto* const all = new instruments;
    return *all;
}

std::string text(std::string_view s) {
    return std::string(s);
}

constexpr std::array<std::string_view, 8> protocol_methods{
    "get", "set", "run", "subscribe", "unsubscribe", "info", "list", "history"};

}  // namespace

std::shared_ptr<prometheus::Collectable> registry() {
    return the().registry;
}

void host_command(std::string_view tool, std::string_view outcome, double seconds) {
    auto& m = the();
    m.host_commands.Add({{"tool", text(tool)}, {"outcome", text(outcome)}}).Increment();
    m.host_command_seconds.Add({{"tool", text(tool)}}, command_buckets).Observe(seconds);
}

void datastore_import(std::string_view datastore, bool ok) {
    the()
        .imports.Add({{"datastore", text(datastore)}, {"outcome", ok ? "ok" : "failed"}})
        .Increment();
}

void request(std::string_view method, std::string_view outcome, double seconds) {
    // Method names come from clients: only the protocol's own become label values.
    const bool known = std::find(protocol_methods.begin(), protocol_methods.end(), method) !=
                       protocol_methods.end();
    const std::string name = known ? text(method) : "other";
    auto& m = the();
    m.requests.Add({{"method", name}, {"outcome", text(outcome)}}).Increment();
    m.request_seconds.Add({{"method", name}}, request_buckets).Observe(seconds);
}

void connection_opened(std::string_view listener) {
    the().connections.Add({{"listener", text(listener)}}).Increment();
}

void connection_closed(std::string_view listener) {
    the().connections.Add({{"listener", text(listener)}}).Decrement();
}

void events_sent(std::size_t count) {
    the().events.Increment(static_cast<double>(count));
}

void slow_subscriber_cut() {
    the().slow_cut.Increment();
}

std::optional<double> held_value(dh_db& db, std::string_view path, conversion how) {
    const auto node = db.find_leaf_node(path);
    if (!node || node->is_async()) return std::nullopt;
    dh::Document doc;
    dh::Value value;
    try {
        node->get(path, doc.GetAllocator(), value);
    } catch (const dh_error&) {
        return std::nullopt;
    }
    if (how == conversion::up_down) {
        if (!value.IsString()) return std::nullopt;
        const std::string_view s(value.GetString(), value.GetStringLength());
        if (s == "up") return 1.0;
        if (s == "down") return 0.0;
        return std::nullopt;
    }
    if (value.IsBool()) return value.GetBool() ? 1.0 : 0.0;
    if (value.IsNumber()) return value.GetDouble();
    return std::nullopt;
}

std::vector<gauge_series> node_series(dh_db& db, std::string_view path_pattern,
                                      const std::vector<std::string>& names, conversion how) {
    const auto at = path_pattern.find("{}");
    std::vector<gauge_series> out;
    for (const auto& name : names) {
        std::string path(path_pattern);
        if (at != std::string_view::npos) path.replace(at, 2, name);
        out.push_back({name, [&db, path, how] { return held_value(db, path, how); }});
    }
    return out;
}

gauge_collector::gauge_collector(std::vector<gauge_family> families)
    : families_(std::move(families)) {}

std::vector<prometheus::MetricFamily> gauge_collector::Collect() const {
    std::vector<prometheus::MetricFamily> out;
    out.reserve(families_.size());
    for (const auto& family : families_) {
        prometheus::MetricFamily f{family.name, family.help, prometheus::MetricType::Gauge, {}};
        for (const auto& series : family.series) {
            const auto value = series.read();
            if (!value) continue;
            prometheus::ClientMetric sample;
            if (!family.label.empty()) sample.label.push_back({family.label, series.label_value});
            sample.gauge.value = *value;
            f.metric.push_back(std::move(sample));
        }
        // A family with no sample is left out, as a series without a value is.
        if (!f.metric.empty()) out.push_back(std::move(f));
    }
    return out;
}

struct endpoint::impl {
    explicit impl(const std::string& address) : exposer(address, 2) {}
    prometheus::Exposer exposer;
    std::vector<std::shared_ptr<prometheus::Collectable>> collectables;
};

endpoint::endpoint(const std::string& address,
                   const std::vector<std::shared_ptr<prometheus::Collectable>>& collectables)
    : impl_(std::make_unique<impl>(address)) {
    impl_->collectables = collectables;
    for (const auto& c : collectables) impl_->exposer.RegisterCollectable(c);
}

endpoint::~endpoint() = default;

int endpoint::port() const {
    const auto ports = impl_->exposer.GetListeningPorts();
    return ports.empty() ? 0 : ports.front();
}

bool is_listen_address(std::string_view address) {
    const auto colon = address.rfind(':');
    if (colon == std::string_view::npos) return false;
    std::string_view host = address.substr(0, colon);
    const std::string_view port = address.substr(colon + 1);
    unsigned number = 0;
    const auto [end, ec] = std::from_chars(port.data(), port.data() + port.size(), number);
    if (ec != std::errc() || end != port.data() + port.size() || number < 1 || number > 65535)
        return false;
    boost::system::error_code error;
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
        boost::asio::ip::make_address_v6(std::string(host), error);
    } else {
        boost::asio::ip::make_address_v4(std::string(host), error);
    }
    return !error;
}

}  // namespace metrics
