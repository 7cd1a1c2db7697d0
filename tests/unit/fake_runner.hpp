#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sysrepo_common.hpp"

// Replaces the process-wide command runner for the lifetime of the object. Every command is
// recorded with its kind and input; replies come from rules matched by command text.
class fake_runner : public sysrepo_common::command_runner {
  public:
    struct call {
        enum kind_t { capture, feed, system } kind;
        std::string cmd;
        std::string input;
    };
    struct reply {
        int status = 0;
        std::string output;
    };

    // Installs a fresh fake runner; restores the previous runner when the guard goes.
    class guard {
      public:
        guard() : runner_(std::make_shared<fake_runner>()) {
            previous_ = sysrepo_common::set_command_runner(runner_);
        }
        ~guard() { sysrepo_common::set_command_runner(previous_); }
        fake_runner* operator->() const { return runner_.get(); }
        fake_runner& operator*() const { return *runner_; }

      private:
        std::shared_ptr<fake_runner> runner_;
        std::shared_ptr<sysrepo_common::command_runner> previous_;
    };

    // Commands containing `needle` answer `r` (latest rule added wins).
    void on(std::string needle, reply r) {
        std::lock_guard lock(mutex_);
        rules_.insert(rules_.begin(), {std::move(needle), std::move(r)});
    }
    // Commands containing `needle` answer what `f` computes from the call.
    void on(std::string needle, std::function<reply(const call&)> f) {
        std::lock_guard lock(mutex_);
        dynamic_rules_.insert(dynamic_rules_.begin(), {std::move(needle), std::move(f)});
    }

    std::vector<call> calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }
    std::vector<std::string> commands() const {
        std::lock_guard lock(mutex_);
        std::vector<std::string> out;
        for (const auto& c : calls_) out.push_back(c.cmd);
        return out;
    }
    void clear() {
        std::lock_guard lock(mutex_);
        calls_.clear();
    }

    int run_capture(const std::string& cmd, std::string& output) override {
        auto r = answer({call::capture, cmd, {}});
        output += r.output;
        return r.status;
    }
    int run_feed(const std::string& cmd, std::string_view input) override {
        return answer({call::feed, cmd, std::string(input)}).status;
    }
    int run_system(const std::string& cmd) override {
        return answer({call::system, cmd, {}}).status;
    }

  private:
    reply answer(call c) {
        std::function<reply(const call&)> f;
        reply r;
        {
            std::lock_guard lock(mutex_);
            calls_.push_back(c);
            bool found = false;
            for (const auto& [needle, fn] : dynamic_rules_)
                if (c.cmd.find(needle) != std::string::npos) {
                    f = fn;
                    found = true;
                    break;
                }
            if (!found)
                for (const auto& [needle, rr] : rules_)
                    if (c.cmd.find(needle) != std::string::npos) {
                        r = rr;
                        break;
                    }
        }
        return f ? f(c) : r;
    }

    // Guards everything below.
    mutable std::mutex mutex_;
    std::vector<call> calls_;
    std::vector<std::pair<std::string, reply>> rules_;
    std::vector<std::pair<std::string, std::function<reply(const call&)>>> dynamic_rules_;
};
