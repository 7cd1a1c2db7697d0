#pragma once

#include <map>
#include <optional>
#include <string>

#include "metrics.hpp"

// The sample of the process registry's `family` whose labels are exactly `labels`, as it is now.
inline std::optional<prometheus::ClientMetric> metric_sample(
    const std::string& family, const std::map<std::string, std::string>& labels) {
    for (const auto& f : metrics::registry()->Collect()) {
        if (f.name != family) continue;
        for (const auto& m : f.metric) {
            std::map<std::string, std::string> got;
            for (const auto& l : m.label) got[l.name] = l.value;
            if (got == labels) return m;
        }
    }
    return std::nullopt;
}

// A counter's value; 0 while it has never been counted.
inline double metric_count(const std::string& family,
                           const std::map<std::string, std::string>& labels) {
    const auto m = metric_sample(family, labels);
    return m ? m->counter.value : 0.0;
}
