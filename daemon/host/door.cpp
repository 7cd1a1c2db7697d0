#include "door.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <mutex>
#include <thread>
#include <utility>

#include "metrics.hpp"
#include "raise.hpp"

extern char** environ;

namespace host {

namespace {

using steady = std::chrono::steady_clock;
constexpr steady::time_point no_deadline = steady::time_point::max();

// A file descriptor closed when it goes out of scope.
class fd_guard {
  public:
    explicit fd_guard(int fd = -1) : fd_(fd) {}
    ~fd_guard() { reset(); }
    fd_guard(const fd_guard&) = delete;
    fd_guard& operator=(const fd_guard&) = delete;
    int get() const { return fd_; }
    void assign(int fd) {
        reset();
        fd_ = fd;
    }
    void reset() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

  private:
    int fd_;
};

// Both ends are close-on-exec, so a command started by another thread never holds them.
struct pipe_pair {
    fd_guard read, write;
    bool open() {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) return false;
        read.assign(fds[0]);
        write.assign(fds[1]);
        return true;
    }
};

// The daemon's environment with `extra` entries added, a later entry replacing one of the same
// name.
std::vector<std::string> environment_with(const std::vector<std::string>& extra) {
    std::vector<std::string> env;
    for (char** e = environ; e && *e; ++e) env.emplace_back(*e);
    for (const auto& entry : extra) {
        const auto name = entry.substr(0, entry.find('=') + 1);
        std::erase_if(env,
                      [&](const std::string& e) { return e.compare(0, name.size(), name) == 0; });
        env.push_back(entry);
    }
    return env;
}

std::vector<char*> c_strings(std::vector<std::string>& words) {
    std::vector<char*> out;
    out.reserve(words.size() + 1);
    for (auto& w : words) out.push_back(w.data());
    out.push_back(nullptr);
    return out;
}

// Writes to a pipe whose reader may have gone: EPIPE instead of SIGPIPE, whatever the process's
// disposition of SIGPIPE is, and no SIGPIPE left pending for this thread.
ssize_t write_no_sigpipe(int fd, const char* data, std::size_t size) {
    sigset_t pipe_set, old;
    sigemptyset(&pipe_set);
    sigaddset(&pipe_set, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_set, &old);
    const ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EPIPE) {
        const timespec zero{};
        while (sigtimedwait(&pipe_set, nullptr, &zero) > 0) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    return n;
}

class posix_spawn_executor final : public executor {
  public:
    result run(const argv_t& argv, const options& opts) override {
        reap_detached();
        result r;
        if (argv.empty()) return r;

        argv_t words = opts.host_namespaces ? nsenter_prefix() : argv_t{};
        words.insert(words.end(), argv.begin(), argv.end());
        auto env = environment_with(opts.env);
        auto c_argv = c_strings(words);
        auto c_env = c_strings(env);

        pipe_pair in, out;
        if ((opts.input && !in.open()) || (capturing(opts) && !out.open())) return r;

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        if (opts.input)
            posix_spawn_file_actions_adddup2(&actions, in.read.get(), STDIN_FILENO);
        else
            posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        if (!opts.output_file.empty()) {
            posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, opts.output_file.c_str(),
                                             O_WRONLY | O_CREAT | O_APPEND, 0644);
            posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
        } else {
            if (capturing(opts))
                posix_spawn_file_actions_adddup2(&actions, out.write.get(), STDOUT_FILENO);
            else
                posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
            if (opts.discard_stderr)
                posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        }

        // The child starts with default signal handling and nothing blocked, whatever the
        // daemon's threads have set; a detached service gets a process group of its own.
        posix_spawnattr_t attr;
        posix_spawnattr_init(&attr);
        sigset_t none, defaults;
        sigemptyset(&none);
        sigemptyset(&defaults);
        sigaddset(&defaults, SIGPIPE);
        posix_spawnattr_setsigmask(&attr, &none);
        posix_spawnattr_setsigdefault(&attr, &defaults);
        short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
        if (opts.detach) {
            flags |= POSIX_SPAWN_SETPGROUP;
            posix_spawnattr_setpgroup(&attr, 0);
        }
        posix_spawnattr_setflags(&attr, flags);

        pid_t pid = -1;
        const int rc = posix_spawnp(&pid, c_argv[0], &actions, &attr, c_argv.data(), c_env.data());
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attr);
        in.read.reset();
        out.write.reset();
        if (rc != 0) return r;

        if (opts.detach) {
            std::lock_guard lock(detached_mutex_);
            detached_.push_back(pid);
            r.status = 0;
            return r;
        }

        const auto deadline = opts.timeout.count() > 0 ? steady::now() + opts.timeout : no_deadline;
        r.timed_out = !exchange(in.write, opts.input ? *opts.input : std::string(), out.read,
                                r.output, deadline);
        in.write.reset();
        out.read.reset();
        r.status = wait_for(pid, deadline, r.timed_out);
        return r;
    }

  private:
    static bool capturing(const options& opts) { return opts.output_file.empty() && !opts.detach; }

    // Feeds `input` and collects the output until the child closes it. False when the deadline
    // passed first.
    static bool exchange(fd_guard& in, const std::string& input, fd_guard& out, std::string& output,
                         std::optional<steady::time_point> deadline) {
        std::size_t written = 0;
        if (in.get() >= 0) {
            ::fcntl(in.get(), F_SETFL, ::fcntl(in.get(), F_GETFL) | O_NONBLOCK);
            if (input.empty()) in.reset();
        }
        std::array<char, 16384> buffer;
        while (in.get() >= 0 || out.get() >= 0) {
            std::array<pollfd, 2> fds{};
            nfds_t n = 0;
            if (in.get() >= 0) fds[n++] = {in.get(), POLLOUT, 0};
            if (out.get() >= 0) fds[n++] = {out.get(), POLLIN, 0};
            int wait_ms = -1;
            if (deadline) {
                const auto left =
                    std::chrono::ceil<std::chrono::milliseconds>(*deadline - steady::now());
                if (left.count() <= 0) return false;
                wait_ms = static_cast<int>(left.count());
            }
            const int ready = ::poll(fds.data(), n, wait_ms);
            if (ready < 0 && errno == EINTR) continue;
            if (ready < 0) return true;
            for (nfds_t i = 0; i < n; ++i) {
                if (!fds[i].revents) continue;
                if (fds[i].fd == in.get()) {
                    // The command closed its input (or exited) without reading all of it.
                    if (fds[i].revents & (POLLERR | POLLHUP)) {
                        in.reset();
                        continue;
                    }
                    const ssize_t k =
                        write_no_sigpipe(in.get(), input.data() + written, input.size() - written);
                    if (k > 0) written += static_cast<std::size_t>(k);
                    if ((k < 0 && errno != EAGAIN && errno != EINTR) || written == input.size())
                        in.reset();
                } else {
                    const ssize_t k = ::read(out.get(), buffer.data(), buffer.size());
                    if (k > 0)
                        output.append(buffer.data(), static_cast<std::size_t>(k));
                    else if (k == 0 || (errno != EAGAIN && errno != EINTR))
                        out.reset();
                }
            }
        }
        return true;
    }

    // The child's wait status. Past the deadline (or once it has already passed) the child is
    // killed.
    static int wait_for(pid_t pid, steady::time_point deadline, bool& timed_out) {
        int status = 0;
        if (!timed_out && deadline != no_deadline) {
            while (::waitpid(pid, &status, WNOHANG) == 0) {
                if (steady::now() >= deadline) {
                    timed_out = true;
                    break;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            if (!timed_out) return status;
        }
        if (timed_out) ::kill(pid, SIGKILL);
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        return status;
    }

    void reap_detached() {
        std::lock_guard lock(detached_mutex_);
        std::erase_if(detached_, [](pid_t pid) {
            int status = 0;
            return ::waitpid(pid, &status, WNOHANG) != 0;
        });
    }

    // Children started detached that have not been reaped yet.
    std::mutex detached_mutex_;
    std::vector<pid_t> detached_;
};

bool is_plain_word(std::string_view word) {
    return !word.empty() && std::all_of(word.begin(), word.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) ||
               std::string_view("_@%+=:,./-").find(c) != std::string_view::npos;
    });
}

std::string quoted(std::string_view word) {
    std::string out = "'";
    for (char c : word) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

}  // namespace

std::shared_ptr<executor> spawn_executor() {
    return std::make_shared<posix_spawn_executor>();
}

const argv_t& nsenter_prefix() {
    static const argv_t prefix{"nsenter", "-m/1/ns/mnt", "-u/1/ns/uts", "-i/1/ns/ipc",
                               "-n/1/ns/net"};
    return prefix;
}

std::string command_text(const argv_t& argv, const options& opts) {
    std::string text;
    auto add = [&](std::string_view word) {
        if (!text.empty()) text += ' ';
        if (is_plain_word(word)) {
            text += word;
            return;
        }
        text += quoted(word);
    };
    // Extra environment first, as NAME='value', the way a shell line would set it.
    for (const auto& entry : opts.env) {
        const auto eq = entry.find('=');
        if (!text.empty()) text += ' ';
        text += entry.substr(0, eq + 1);
        text += quoted(eq == std::string::npos ? std::string_view()
                                               : std::string_view(entry).substr(eq + 1));
    }
    if (opts.host_namespaces)
        for (const auto& w : nsenter_prefix()) add(w);
    for (const auto& w : argv) add(w);
    return text;
}

door::door(std::shared_ptr<executor> exec, std::filesystem::path root)
    : exec_(std::move(exec)), root_(std::move(root)) {}

result door::run(const argv_t& argv, const options& opts) const {
    const auto start = steady::now();
    result r = exec_->run(argv, opts);
    const std::chrono::duration<double> took = steady::now() - start;
    const char* outcome = r.status == -1  ? "not_started"
                          : r.timed_out   ? "timed_out"
                          : r.status != 0 ? "failed"
                                          : "ok";
    metrics::host_command(
        argv.empty() ? std::string() : std::filesystem::path(argv.front()).filename().string(),
        outcome, took.count());
    return r;
}

std::string door::call(const argv_t& argv, const options& opts, bool log_failure) const {
    result r = run(argv, opts);
    if (r.status == 0 && !r.timed_out) return std::move(r.output);
    const std::string message = "Failed to call: " + command_text(argv, opts);
    if (log_failure) dh::raise(-1, message, "exec");
    throw dh_error(-1, message);
}

std::string door::call_status_coded(const argv_t& argv, const options& opts) const {
    result r = run(argv, opts);
    if (r.status == 0 && !r.timed_out) return std::move(r.output);
    if (r.status == -1) dh::raise(-1, "Faild to call: " + command_text(argv, opts), "exec");
    dh::raise(r.timed_out ? SIGKILL : r.status, "Failed to call: " + command_text(argv, opts),
              "exec");
}

std::filesystem::path door::file(std::string_view device_path) const {
    return root_ / std::filesystem::path(device_path).relative_path();
}

}  // namespace host
