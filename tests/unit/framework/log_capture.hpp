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

// Collects the log records written while it lives: severity, channel and text.
class log_capture {
  public:
    struct record {
        int severity;
        std::string channel;
        std::string message;
    };

    log_capture() : backend_(boost::make_shared<backend>()) {
        msg_log_slg::construct_logger();
        sink_ = boost::make_shared<boost::log::sinks::synchronous_sink<backend>>(backend_);
        boost::log::core::get()->add_sink(sink_);
    }
    ~log_capture() { boost::log::core::get()->remove_sink(sink_); }
    log_capture(const log_capture&) = delete;
    log_capture& operator=(const log_capture&) = delete;

    // Records whose message contains `needle`.
    std::vector<record> find(const std::string& needle) const {
        std::lock_guard lock(backend_->mutex);
        std::vector<record> out;
        for (const auto& r : backend_->records)
            if (r.message.find(needle) != std::string::npos) out.push_back(r);
        return out;
    }

  private:
    struct backend
        : boost::log::sinks::basic_sink_backend<boost::log::sinks::synchronized_feeding> {
        void consume(const boost::log::record_view& rec) {
            auto severity = boost::log::extract<int>("Severity", rec);
            auto channel = boost::log::extract<std::string>("Channel", rec);
            auto message = boost::log::extract<std::string>("Message", rec);
            std::lock_guard lock(mutex);
            records.push_back(
                {severity ? *severity : -1, channel ? *channel : "", message ? *message : ""});
        }
        mutable std::mutex mutex;
        std::vector<record> records;
    };

    boost::shared_ptr<backend> backend_;
    boost::shared_ptr<boost::log::sinks::synchronous_sink<backend>> sink_;
};
