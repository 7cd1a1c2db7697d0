#pragma once

#include <mutex>
#include <string>
#include <vector>

#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/make_shared.hpp>

#include "msg_log.hpp"

// Collects the log records written while it lives. One sink stays installed for the whole test
// program and is never destroyed.
class log_capture {
  public:
    struct record {
        int severity;
        std::string channel;
        std::string message;
    };

    log_capture() : first_(store().size()) {}
    log_capture(const log_capture&) = delete;
    log_capture& operator=(const log_capture&) = delete;

    // Records written since this capture began whose message contains `needle`.
    std::vector<record> find(const std::string& needle) const {
        return store().since(first_, needle);
    }
    // "<severity> <channel>" of each of them.
    std::vector<std::string> where(const std::string& needle) const {
        std::vector<std::string> out;
        for (const auto& r : find(needle))
            out.push_back(std::to_string(r.severity) + " " + r.channel);
        return out;
    }

  private:
    struct backend
        : boost::log::sinks::basic_sink_backend<boost::log::sinks::synchronized_feeding> {
        void consume(const boost::log::record_view& rec) {
            using boost::log::extract_or_default;
            std::lock_guard lock(mutex);
            records.push_back({extract_or_default<int>("Severity", rec, -1),
                               extract_or_default<std::string>("Channel", rec, std::string()),
                               extract_or_default<std::string>("Message", rec, std::string())});
        }
        std::size_t size() {
            std::lock_guard lock(mutex);
            return records.size();
        }
        std::vector<record> since(std::size_t first, const std::string& needle) {
            std::lock_guard lock(mutex);
            std::vector<record> out;
            for (std::size_t i = first; i < records.size(); ++i)
                if (records[i].message.find(needle) != std::string::npos) out.push_back(records[i]);
            return out;
        }
        std::mutex mutex;  // guards records
        std::vector<record> records;
    };

    // The backend and its sink are never released, so the sink outlives the logging core, which
    // drops its own reference at exit, and every thread that may still log then.
    static backend& store() {
        using sink_type = boost::log::sinks::synchronous_sink<backend>;
        struct installed {
            boost::shared_ptr<backend> backend_ptr;
            boost::shared_ptr<sink_type> sink;
        };
        static installed* const instance = [] {
            msg_log_slg::construct_logger();
            auto b = boost::make_shared<backend>();
            auto* i = new installed{b, boost::make_shared<sink_type>(b)};
            boost::log::core::get()->add_sink(i->sink);
            return i;
        }();
        return *instance->backend_ptr;
    }

    const std::size_t first_;
};
