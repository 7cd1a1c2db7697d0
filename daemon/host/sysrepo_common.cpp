#include "sysrepo_common.hpp"

#include <arpa/inet.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>

#include "dh_error.hpp"
#include "msg_log.hpp"

namespace sysrepo_common {

const std::string NSENTER_CMD = "nsenter -m/1/ns/mnt -u/1/ns/uts -i/1/ns/ipc -n/1/ns/net ";

namespace {

std::array<std::string_view, 28> make_ieth_interfaces() {
    return {"e1",  "e2",  "e3",  "e4",  "e5",  "e6",  "e7",  "e8",          "e9",  "e10",
            "e11", "e12", "e13", "e14", "e15", "e16", "e17", "e18",         "e19", "e20",
            "e21", "e22", "e23", "e24", "e25", "e26", "e27", MGMT_INTERFACE};
}

struct pipe_closer {
    int* status;
    void operator()(FILE* f) const { *status = pclose(f); }
};

class popen_runner final : public command_runner {
  public:
    int run_capture(const std::string& cmd, std::string& output) override {
        int status = -1;
        {
            std::unique_ptr<FILE, pipe_closer> pipe(popen(cmd.c_str(), "r"), pipe_closer{&status});
            if (!pipe) throw std::runtime_error("popen failed");
            std::array<char, 128> buffer;
            while (fgets(buffer.data(), static_cast<int>(buffer.size()), pipe.get()) != nullptr)
                output += buffer.data();
        }
        return status;
    }

    int run_feed(const std::string& cmd, std::string_view input) override {
        int status = -1;
        {
            std::unique_ptr<FILE, pipe_closer> pipe(popen(cmd.c_str(), "w"), pipe_closer{&status});
            if (!pipe) throw std::runtime_error("popen failed");
            fwrite(input.data(), 1, input.size(), pipe.get());
        }
        return status;
    }

    int run_system(const std::string& cmd) override { return std::system(cmd.c_str()); }
};

// Guards current_runner; the runner itself is called without the lock.
std::mutex runner_mutex;
std::shared_ptr<command_runner> current_runner = std::make_shared<popen_runner>();

std::shared_ptr<command_runner> runner() {
    std::lock_guard lock(runner_mutex);
    return current_runner;
}

}  // namespace

const std::array<std::string_view, 28> IETH_INTERFACES = make_ieth_interfaces();

std::shared_ptr<command_runner> set_command_runner(std::shared_ptr<command_runner> r) {
    if (!r) r = std::make_shared<popen_runner>();
    std::lock_guard lock(runner_mutex);
    std::swap(current_runner, r);
    return r;
}

std::string exec(const std::string& cmd, bool log_failure) {
    const std::string message = "Failed to call: " + cmd;
    try {
        std::string result;
        int status = 0;
        try {
            status = runner()->run_capture(cmd, result);
        } catch (const std::runtime_error&) {
            if (log_failure)
                MSG_LOG(3, "exec") << message << msg_log::getCodeTrace(__FILE__, __LINE__);
            throw dh_error(-1, message);
        }
        if (status == 0) return result;
        if (log_failure) MSG_LOG(3, "exec") << message << msg_log::getCodeTrace(__FILE__, __LINE__);
        throw dh_error(status, message);
    } catch (...) {
        // Callers rely on the message only; whatever went wrong inside is reported as -1.
        throw dh_error(-1, message);
    }
}

void exec(const std::string& cmd, std::string_view input) {
    int status = 0;
    try {
        status = runner()->run_feed(cmd, input);
    } catch (const std::runtime_error&) {
        const std::string message = "Faild to call: " + cmd;
        MSG_LOG(3, "exec") << message << msg_log::getCodeTrace(__FILE__, __LINE__);
        throw dh_error(-1, message);
    }
    if (status != 0) {
        const std::string message = "Failed to call: " + cmd;
        MSG_LOG(3, "exec") << message << msg_log::getCodeTrace(__FILE__, __LINE__);
        throw dh_error(status, message);
    }
}

int system(const std::string& cmd) {
    return runner()->run_system(cmd);
}

std::string prefix_length_to_netmask(int n) {
    std::string out;
    for (int k = 0; k < 4; ++k) {
        unsigned octet = 0;
        // 64-bit arithmetic: lengths near the ends of the int range must not overflow.
        for (int j = 0; j < 8; ++j)
            if (static_cast<long long>(n) - 8 * k - j > 0) octet |= 0x80u >> j;
        if (k) out += '.';
        out += std::to_string(octet);
    }
    return out;
}

int netmask_to_prefix_length(const std::string& netmask) {
    std::istringstream in(netmask);
    std::string field;
    int bits = 0;
    while (std::getline(in, field, '.')) bits += __builtin_popcount(std::stoi(field) & 0xff);
    return bits;
}

bool is_string_ipaddress(const std::string& text) {
    in_addr addr{};
    return inet_pton(AF_INET, text.c_str(), &addr) != 0;
}

bool is_valid_netmask(const std::string& text) {
    return text.find_first_not_of("0123456789.") == std::string::npos;
}

}  // namespace sysrepo_common
