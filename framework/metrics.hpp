#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <prometheus/collectable.h>
#include <prometheus/metric_family.h>

#include "dh_db.hpp"

// Prometheus metrics of the process: counters and histograms of its own work, kept in one
// process-wide registry and fed by one-line calls from the code that does the work, and the
// device's values, read at scrape time from what the node tree already holds.
namespace metrics {

// The registry of the daemon's own counters; lives until the process exits.
std::shared_ptr<prometheus::Collectable> registry();

// One host command: the base name of argv[0], its outcome ("ok", "failed", "timed_out",
// "not_started") and how long it took.
void host_command(std::string_view tool, std::string_view outcome, double seconds);
// One datastore import (`running`, `startup`) and whether the tool took it.
void datastore_import(std::string_view datastore, bool ok);
// One answered request: the protocol method (names the protocol does not have count as
// "other"), "ok" or "error", and the time from its arrival to its answer.
void request(std::string_view method, std::string_view outcome, double seconds);
// A client connection opened or closed on a listener ("unix", "tcp", "ipv6", "tls").
void connection_opened(std::string_view listener);
void connection_closed(std::string_view listener);
// Events written to subscribers (one per event and session).
void events_sent(std::size_t count = 1);
// A subscriber cut off because it did not read its events.
void slow_subscriber_cut();

// One series of a gauge: its label value and where its value comes from. A reader that answers
// nothing leaves the series out of that scrape.
struct gauge_series {
    std::string label_value;
    std::function<std::optional<double>()> read;
};

// A gauge family built at every scrape from values the program holds.
struct gauge_family {
    std::string name;
    std::string help;
    // Empty: one series without labels.
    std::string label;
    std::vector<gauge_series> series;
};

// How a node's value becomes a sample.
enum class conversion {
    // A number as it is; a boolean as 1 or 0.
    number,
    // The texts "up" (1) and "down" (0); any other text is no sample.
    up_down,
};

// The value a leaf of `db` holds at `path`, without calling the code behind it: a leaf whose
// reads call into a unit (which may run a host command), a missing leaf, one with no value yet
// or one whose value does not convert give nothing.
std::optional<double> held_value(dh_db& db, std::string_view path, conversion how);

// One series per name, read from the path with {} replaced by the name: "data/{}/linkStatus"
// with {"e1", "e2"} reads data/e1/linkStatus labelled e1, and so on.
std::vector<gauge_series> node_series(dh_db& db, std::string_view path_pattern,
                                      const std::vector<std::string>& names, conversion how);

// Builds its families at every scrape; no value is copied in between.
class gauge_collector : public prometheus::Collectable {
  public:
    explicit gauge_collector(std::vector<gauge_family> families);
    std::vector<prometheus::MetricFamily> Collect() const override;

  private:
    const std::vector<gauge_family> families_;
};

// The HTTP endpoint: serves `/metrics` in the text exposition format on `address` (HOST:PORT,
// an IPv6 host in brackets) with the given collectables, from its own thread, until destroyed.
class endpoint {
  public:
    endpoint(const std::string& address,
             const std::vector<std::shared_ptr<prometheus::Collectable>>& collectables);
    ~endpoint();
    endpoint(const endpoint&) = delete;
    endpoint& operator=(const endpoint&) = delete;
    // The port it listens on (the one chosen by the system when the address gave 0).
    int port() const;

  private:
    struct impl;
    std::unique_ptr<impl> impl_;
};

// Checks HOST:PORT as given to the daemon's option: an IPv4 address or a bracketed IPv6
// address, and a port from 1 to 65535.
bool is_listen_address(std::string_view address);

}  // namespace metrics
