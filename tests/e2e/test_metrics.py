"""Prometheus metrics: a real Prometheus server scrapes the daemon's metrics endpoint in the
simulated device every second, and its query API answers the device's values and the daemon's
own counters.

The simulated device has a network of its own that the host cannot reach, so Prometheus runs
inside it (the host's program, through `devhost exec`) and is queried from inside it too."""

import json
import os
import signal
import subprocess
import unittest
from urllib.parse import quote

import dhtest
from dhtest import DEVHOST, Device, wait_until

METRICS_ADDRESS = "127.0.0.1:9701"
PROMETHEUS_ADDRESS = "127.0.0.1:19090"

PROMETHEUS_CONFIG = """\
global:
  scrape_interval: 1s
  evaluation_interval: 1s
scrape_configs:
  - job_name: device
    static_configs:
      - targets: ["%s"]
""" % METRICS_ADDRESS

class Prometheus:
    """A Prometheus server inside the device with its configuration and storage under DIR/sim;
    stopped (by its own process id) when the test ends, and in any case by `devhost down`."""

    def __init__(self, test, dev):
        self.dev = dev
        dev.write("prometheus/prometheus.yml", PROMETHEUS_CONFIG)
        self.log = open(dev.path("prometheus", "prometheus.log"), "w")
        self.nsenter = subprocess.Popen(
            [DEVHOST, "exec", dev.dir, "--", "/usr/bin/prometheus",
             "--config.file=/sim/prometheus/prometheus.yml",
             "--storage.tsdb.path=/sim/prometheus/data",
             "--web.listen-address=" + PROMETHEUS_ADDRESS],
            stdout=self.log, stderr=subprocess.STDOUT)
        test.addCleanup(self.stop)

    def stop(self):
        # devhost exec is nsenter, which forks the program into the device and waits for it.
        if self.nsenter.poll() is None:
            with open("/proc/%d/task/%d/children" % (self.nsenter.pid, self.nsenter.pid)) as f:
                for pid in f.read().split():
                    os.kill(int(pid), signal.SIGTERM)
            try:
                self.nsenter.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.nsenter.kill()
                self.nsenter.wait()
        self.log.close()

    def query(self, expression):
        """The instant vector of an expression as {labels: value}; {} while it has none."""
        r = self.dev.exec("curl", "-sf", "--max-time", "5", "http://%s/api/v1/query?query=%s" % (
            PROMETHEUS_ADDRESS, quote(expression, safe="")))
        if not r.stdout.strip():
            return {}
        answer = json.loads(r.stdout)
        if answer.get("status") != "success":
            raise AssertionError("query %s: %s" % (expression, answer))
        return {frozenset((k, v) for k, v in s["metric"].items() if k not in ("job", "instance")):
                float(s["value"][1]) for s in answer["data"]["result"]}

    def value(self, expression):
        """The one value of an expression, or None while it has none."""
        samples = self.query(expression)
        return next(iter(samples.values())) if len(samples) == 1 else None


class MetricsTest(unittest.TestCase):
    def test_prometheus_scrapes_device_values_and_daemon_counters(self):
        dev = Device(self, daemon_args=["--metrics-listen", METRICS_ADDRESS])
        prometheus = Prometheus(self, dev)

        # The default device: modules in e13 (-3.98 dBm received) and e14, none in e15.
        wait_until(lambda: prometheus.value('dh_sfp_rx_power_dbm{port="e13"}') == -3.98,
                   timeout=40, message="Prometheus never saw e13's receive power")
        # Module readings in base units (the last ones straight from the ethtool text); ports
        # without a module never had a power reading, so they have no series at all.
        expected = {'up{job="device"}': 1, 'dh_sfp_tx_power_dbm{port="e13"}': -3.0,
                    'dh_sfp_present{port="e15"}': 0, 'dh_sfp_temperature_margin_celsius{port="e13"}': 40.0,
                    'dh_sfp_temperature_celsius{port="e13"}': 35.0, 'dh_sfp_supply_voltage_volts{port="e13"}': 3.301,
                    'dh_sfp_laser_bias_current_amperes{port="e13"}': 0.03512, 'dh_link_up{interface="e1"}': 1,
                    'dh_link_up{interface="e21"}': 0, 'dh_sfp_rx_power_dbm{port="e15"}': None}
        self.assertEqual({query: prometheus.value(query) for query in expected}, expected)

        # The reader's ethtool runs and the start-up exports, counted by the door.
        self.assertGreater(
            prometheus.value('dh_host_commands_total{tool="ethtool",outcome="ok"}') or 0, 0)

        # Every query of the Grafana dashboard names series that exist.
        with open(os.path.join(dhtest.REPO, "contrib", "grafana-dashboard.json")) as f:
            dashboard = json.load(f)
        for panel in dashboard["panels"]:
            for target in panel["targets"]:
                expression = target["expr"].replace("$instance", ".*").replace("$port", ".*")
                self.assertTrue(prometheus.query(expression), "%s: %s" % (panel["title"], expression))

        # The NTP state is the one the last status read found.
        self.assertEqual(prometheus.query("dh_ntp_synchronized"), {})
        dev.get("data/ntp/serverStatus")
        wait_until(lambda: prometheus.value("dh_ntp_synchronized") == 1, timeout=10)


if __name__ == "__main__":
    dhtest.main()
