#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The daemon's one door to the host: every command is an argv vector handed to an executor, and
// every file the daemon reads or writes on its own is named through a filesystem root. Nothing
// here joins argv into a shell line, so no client text can become shell syntax.
namespace host {

using argv_t = std::vector<std::string>;

// What a command needs besides its argv.
struct options {
    // Run in the host's mount, UTS, IPC and network namespaces (those of process 1) through
    // nsenter; otherwise in the daemon's own.
    bool host_namespaces = false;
    // Standard input; none: /dev/null.
    std::optional<std::string> input;
    // Non-empty: standard output and error are appended to this file and nothing is captured.
    std::string output_file;
    // Standard error to /dev/null instead of the daemon's own.
    bool discard_stderr = false;
    // Extra NAME=VALUE entries added to the daemon's environment.
    std::vector<std::string> env;
    // Zero: no limit. A command still running at its limit is killed.
    std::chrono::milliseconds timeout{0};
    // Started and not waited for (a service that keeps running); its status reads 0.
    bool detach = false;

    options in_host() const {
        return with([](options& o) { o.host_namespaces = true; });
    }
    options feeding(std::string text) const {
        return with([&](options& o) { o.input = std::move(text); });
    }
    options appending_to(std::string file) const {
        return with([&](options& o) { o.output_file = std::move(file); });
    }
    options quiet() const {
        return with([](options& o) { o.discard_stderr = true; });
    }
    options with_env(std::string entry) const {
        return with([&](options& o) { o.env.push_back(std::move(entry)); });
    }
    options detached() const {
        return with([](options& o) { o.detach = true; });
    }
    options limited_to(std::chrono::milliseconds t) const {
        return with([&](options& o) { o.timeout = t; });
    }

  private:
    template <class F>
    options with(F&& change) const {
        options copy = *this;
        change(copy);
        return copy;
    }
};

// The options of a command that runs in the host's namespaces.
inline options in_host() {
    return options{}.in_host();
}

// A query of a host tool's state (status, counters, exports) answers in well under a second; one
// that hangs is killed at this limit, so it cannot hold a worker or the poll forever.
inline constexpr std::chrono::seconds query_limit{30};

// The options of a query run in the host's namespaces.
inline options query() {
    return in_host().limited_to(query_limit);
}

struct result {
    // Raw wait status (exit status << 8, or the signal); -1 when the command could not start.
    int status = -1;
    bool timed_out = false;
    std::string output;
};

// Runs one command. Implementations are thread-safe.
class executor {
  public:
    virtual ~executor() = default;
    virtual result run(const argv_t& argv, const options& opts) = 0;
};

// The real executor: posix_spawn, pipes for standard input and output, a deadline for the
// timeout. Children started detached are reaped by later calls.
std::shared_ptr<executor> spawn_executor();

// The argv prefix of commands that run in the host's namespaces.
const argv_t& nsenter_prefix();

// The command as a person would type it: the nsenter prefix where it applies, then argv, each
// word single-quoted where a shell would split or interpret it. Used in logs and error texts.
std::string command_text(const argv_t& argv, const options& opts);

// The executor, the filesystem root and the one failure rule, shared by every unit.
class door {
  public:
    door(std::shared_ptr<executor> exec, std::filesystem::path root);

    // Runs the command and returns its standard output. A command that cannot start, is killed
    // (by a signal or its timeout) or exits non-zero raises dh_error -1 "Failed to call: " + its
    // text, logged at error first unless log_failure is false.
    std::string call(const argv_t& argv, const options& opts = {}, bool log_failure = true) const;

    // As call(), but the error's code is the raw wait status (a datastore import that exits 1
    // answers 256), as clients of the datastore writes have always seen it; always logged.
    std::string call_status_coded(const argv_t& argv, const options& opts) const;

    // The command's result as it is, for callers with a failure rule of their own.
    result run(const argv_t& argv, const options& opts = {}) const;

    // Where a path of the device's filesystem lies for this daemon: root / path.
    std::filesystem::path file(std::string_view device_path) const;

  private:
    std::shared_ptr<executor> exec_;
    std::filesystem::path root_;
};

}  // namespace host
