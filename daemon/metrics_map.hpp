#pragma once

#include <vector>

#include "metrics.hpp"
#include "sysrepo_device_handler.hpp"

// The device's values as Prometheus gauges: every family, its labels and where each value is
// held. Nothing here runs a host command; the families read the handler and its node tree, so
// they must not outlive it.
std::vector<metrics::gauge_family> device_gauges(dh_db& db, sysrepo_device_handler& handler);
