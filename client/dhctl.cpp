// dhctl: command-line client of the device-handler daemon.

#include <cctype>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <unistd.h>

#include <fmt/format.h>
#include <boost/program_options.hpp>

#include "dh_client.hpp"
#include "dhctl_view.hpp"

namespace po = boost::program_options;
namespace dc = dh::client;

namespace {

constexpr const char* default_socket = "/tmp/device_handlers/sysrepo/dh.sock";
constexpr std::size_t unlimited = static_cast<std::size_t>(-1);

// Exit statuses.
constexpr int exit_failure = 1;
constexpr int exit_usage = 2;

struct command_help {
    const char* synopsis;
    const char* summary;
    std::size_t min_args;
    std::size_t max_args;
    const char* details;
};

const std::map<std::string, command_help>& commands() {
    static const std::map<std::string, command_help> table = {
        {"get",
         {"get PATH", "print a leaf's value, or the values a pattern matches", 1, 1,
          "Prints the value of the leaf at PATH: a string bare, anything else as JSON\n"
          "(null where a parameter is not set). A number is followed by its unit where\n"
          "the leaf's description has one (-2.3 dBm); --json prints the bare value.\n\n"
          "PATH may be a pattern: a segment * matches one segment, a last segment ...\n"
          "any depth (quote it for the shell). Each matched leaf is printed as\n"
          "`PATH  VALUE`, a leaf that could not be read as `PATH  error CODE: MESSAGE`\n"
          "(exit status 1 then); --table adds a header, --json prints the daemon's\n"
          "{\"values\": ..., \"errors\": ...} object.\n\n"
          "Examples:\n  dhctl get config/ospf/areaId\n"
          "  dhctl --table get 'data/*/linkStatus'\n  dhctl get 'data/e13/...'\n"}},
        {"set",
         {"set PATH VALUE [PATH VALUE]...", "write leaves' values", 2, unlimited,
          "Writes VALUE to the leaf at PATH and prints nothing on success. Several\n"
          "PATH VALUE pairs are written together in one set_many: all or none.\n"
          "With --confirm SECONDS the write is a confirmed commit: dhctl prints its\n"
          "token, and the daemon rolls the write back unless `dhctl confirm TOKEN`\n"
          "comes within SECONDS (1 to 3600).\n"
          "VALUE is taken as JSON when it is one valid JSON text (5, true, null,\n"
          "{\"a\":1}, \"text\") and as a plain string otherwise: `set P abc` and\n"
          "`set P '\"abc\"'` both send the string abc; to send the string \"5\", write\n"
          "'\"5\"'. A VALUE starting with '-' that is not a number goes after `--`.\n\n"
          "Examples:\n  dhctl set config/ospf/areaId 0.0.0.2\n"
          "  dhctl set config/dnsSettings '{\"primaryDnsIpAddress\":\"192.0.2.53\"}'\n"
          "  dhctl set config/ntp/primaryServer 192.0.2.1 config/ntp/adminStatus up\n"
          "  dhctl --confirm 120 set config/e28/ipv4Settings \\\n"
          "      '{\"ipAddress\":\"192.0.2.20\",\"netmask\":\"255.255.255.0\"}'\n"}},
        {"confirm",
         {"confirm TOKEN", "keep a write made with --confirm", 1, 1,
          "Confirms the pending commit that TOKEN (printed by `set --confirm`) names,\n"
          "so that it is kept; prints nothing on success.\n\n"
          "Example:\n  dhctl confirm 5f0c3d9e8a7b41c2b6e1d0f9a8c7b6e5\n"}},
        {"run",
         {"run PATH [VALUE]", "run a command leaf", 1, 2,
          "Runs the command at PATH with VALUE (read as for `set`; null when absent) and\n"
          "prints its response unless that is null. Long commands such as image installs\n"
          "may need a larger --timeout.\n\n"
          "Examples:\n  dhctl run command/reboot true\n"
          "  dhctl --timeout 900 run command/bootImage http://192.0.2.1/bundle.raucb\n"}},
        {"watch",
         {"watch PATH...", "print value changes until interrupted", 1, unlimited,
          "Subscribes to every PATH, prints each one's current value, then one line per\n"
          "event, `TIME PATH VALUE`, until interrupted (Ctrl-C or SIGTERM; exit status 0).\n"
          "The current values are stamped with the local clock. With --json every line is\n"
          "an event object; current values have \"type\":\"initial\". With --table, a\n"
          "table of the paths, their latest values and when they came, redrawn in place\n"
          "on a terminal (printed anew after each change otherwise). A PATH may be a\n"
          "pattern (see `dhctl help get`): every matched leaf that can be watched is.\n\n"
          "--since SEQ resumes after the event SEQ: instead of the current values, the\n"
          "changes after SEQ that the daemon still holds are printed, then live ones.\n"
          "--heartbeat SECONDS asks for a heartbeat after that long without a change.\n"
          "Sync (end of the replay) and heartbeats go to standard error as\n"
          "`# sync seq=N complete=true|false` and `# heartbeat seq=N time=T`; with --json\n"
          "they are lines {\"type\":\"sync\",...} and {\"type\":\"heartbeat\",...}.\n\n"
          "Examples:\n  dhctl watch data/configStatus data/installStatus\n"
          "  dhctl watch --table data/e13/sfp/rxPower data/e13/sfp/txPower\n"
          "  dhctl watch --since 1042 --heartbeat 30 'data/*/linkStatus'\n"}},
        {"ls",
         {"ls [PREFIX]", "list leaves with their descriptions", 0, 1,
          "Lists the leaves whose path equals PREFIX or lies below it (every leaf without\n"
          "PREFIX), sorted, one per line: the path and its one-line description.\n\n"
          "Examples:\n  dhctl ls config/ospf\n  dhctl ls | wc -l\n"}},
        {"info",
         {"info PATH", "print a leaf's description object", 1, 1,
          "Prints the description object of the leaf at PATH: its kind, value type,\n"
          "capabilities, constraints, default value and so on.\n\n"
          "Example:\n  dhctl info config/ntp/adminStatus\n"}},
        {"history",
         {"history [N]", "print the last N recorded changes", 0, 1,
          "Prints the last N (default 100) changes the daemon recorded, oldest first,\n"
          "one per line: `TIME PATH VALUE`.\n\n"
          "Example:\n  dhctl history 20\n"}},
        {"help",
         {"help [COMMAND]", "print help", 0, 1,
          "Prints the general help, or the help of COMMAND.\n"}},
    };
    return table;
}

po::options_description global_options() {
    po::options_description options("Global options");
    // clang-format off
    options.add_options()
        ("help,h", "print help; after a command, that command's help")
        ("socket", po::value<std::string>()->value_name("PATH"),
         "the daemon's Unix socket (default: $DH_SOCKET, else /tmp/device_handlers/sysrepo/dh.sock)")
        ("host", po::value<std::string>()->value_name("HOST"),
         "connect over TCP to HOST (a name, an IPv4 or an IPv6 address) instead")
        ("port", po::value<unsigned>()->value_name("PORT"), "TCP port (default 9700; with --tls, 9701)")
        ("tls", "connect over TLS to --host/--port, with a client certificate")
        ("cert", po::value<std::string>()->value_name("FILE"), "with --tls: the client certificate (PEM)")
        ("key", po::value<std::string>()->value_name("FILE"), "with --tls: its private key (PEM)")
        ("ca", po::value<std::string>()->value_name("FILE"),
         "with --tls: the CA that signed the daemon's certificate (PEM)")
        ("json", "print raw JSON, one line per value or event")
        ("timeout", po::value<double>()->value_name("SECONDS")->default_value(60),
         "limit for connecting and for each request")
        ("confirm", po::value<unsigned>()->value_name("SECONDS"),
         "set: roll the write back unless confirmed within SECONDS (1 to 3600)")
        ("table", "watch: a live table of the latest values instead of one line per change;"
         " get of a pattern: a table of path and value")
        ("since", po::value<std::uint64_t>()->value_name("SEQ"),
         "watch: replay the changes after event SEQ first")
        ("heartbeat", po::value<unsigned>()->value_name("SECONDS"),
         "watch: ask for a heartbeat after SECONDS (1..3600) without a change")
        ("version", "print the version and exit");
    // clang-format on
    return options;
}

void print_general_help(std::ostream& out) {
    out << "Usage: dhctl [OPTIONS] COMMAND [ARGS...]\n\n"
           "Reads, writes and watches the leaves of the device-handler daemon.\n\n"
           "Commands:\n";
    for (const auto& [name, help] : commands())
        out << fmt::format("  {:<18}{}\n", help.synopsis, help.summary);
    out << '\n'
        << global_options()
        << "\nVALUE arguments are JSON when they parse as JSON, plain strings otherwise.\n"
           "Errors from the daemon print `error CODE: MESSAGE` and exit with status 1;\n"
           "usage errors exit with status 2.\n"
           "Run `dhctl help COMMAND` for a command's details.\n";
}

void print_command_help(const std::string& name, std::ostream& out) {
    const command_help& help = commands().at(name);
    out << "Usage: dhctl [OPTIONS] " << help.synopsis << "\n\n" << help.details;
}

int usage_error(const std::string& text) {
    std::cerr << "dhctl: " << text << "\nRun `dhctl --help` for usage.\n";
    return exit_usage;
}

// Tokens such as -5 or -0.5 are values, not options.
std::pair<std::string, std::string> negative_number_as_argument(const std::string& token) {
    if (token.size() > 1 && token[0] == '-' &&
        (std::isdigit(static_cast<unsigned char>(token[1])) || token[1] == '.'))
        return {"args", token};
    return {};
}

volatile std::sig_atomic_t interrupted = 0;

extern "C" void on_interrupt(int) {
    interrupted = 1;
}

struct output {
    bool json;
    bool table = false;
    dc::subscribe_options subscription{};
    // set --confirm SECONDS
    std::optional<unsigned> confirm{};

    void value(const rapidjson::Value& v) const {
        std::cout << (json ? dc::to_json(v) : dc::display_value(v, true)) << '\n';
    }

    void change(const std::string& time, const std::string& path, const rapidjson::Value& v) const {
        std::cout << time << ' ' << path << ' ' << dc::display_value(v, false) << '\n';
    }
};

std::string now_utc_iso() {
    using namespace std::chrono;
    const auto now = system_clock::now();
    const auto ms = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
    const std::time_t t = system_clock::to_time_t(now);
    std::tm tm{};
    gmtime_r(&t, &tm);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", tm.tm_year + 1900,
                       tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ms);
}

rapidjson::Document optional_value(const std::vector<std::string>& args, std::size_t index) {
    if (index < args.size()) return dc::parse_cli_value(args[index]);
    return rapidjson::Document();
}

void catch_interrupts() {
    struct sigaction action {};
    action.sa_handler = on_interrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

// The path as the daemon names it in events: without leading and trailing slashes.
std::string event_path(std::string path) {
    while (!path.empty() && path.front() == '/') path.erase(0, 1);
    while (!path.empty() && path.back() == '/') path.pop_back();
    return path;
}

// True for the first event of a watched path when it only repeats the value printed on
// subscribing; forgets that value either way.
bool repeats_initial(std::map<std::string, std::optional<rapidjson::Document>>& initial,
                     const dc::event& e) {
    auto it = initial.find(e.path);
    if (it == initial.end() || !it->second) return false;
    const bool repeat = *it->second == e.value;
    it->second.reset();
    return repeat;
}

std::string error_text(const rapidjson::Value& e) {
    if (!e.IsObject() || !e.HasMember("code") || !e.HasMember("message")) return dc::to_json(e);
    return fmt::format("error {}: {}", dc::to_json(e["code"]),
                       dc::display_value(e["message"], false));
}

// Subscribes to one PATH (a leaf or a pattern) and returns the current value of each leaf it
// covers; leaves of a pattern that could not be subscribed to are reported on stderr.
std::vector<std::pair<std::string, rapidjson::Document>> subscribe_path(dc::client& c,
                                                                        const std::string& raw,
                                                                        const output& out) {
    auto answer = c.subscribe(raw, out.subscription);
    std::vector<std::pair<std::string, rapidjson::Document>> leaves;
    if (!dc::is_pattern(raw) || !answer.IsObject() || !answer.HasMember("values")) {
        leaves.emplace_back(event_path(raw), std::move(answer));
        return leaves;
    }
    for (const auto& [path, value] : answer["values"].GetObject()) {
        rapidjson::Document v;
        v.CopyFrom(value, v.GetAllocator());
        leaves.emplace_back(std::string(path.GetString(), path.GetStringLength()), std::move(v));
    }
    if (answer.HasMember("errors"))
        for (const auto& [path, e] : answer["errors"].GetObject())
            std::cerr << "dhctl: " << path.GetString() << ": " << error_text(e) << '\n';
    return leaves;
}

// Sync and heartbeat notifications: lines of their own with --json, else on stderr.
void print_control(const dc::event& e, const output& out) {
    if (out.json) {
        rapidjson::Document line(rapidjson::kObjectType);
        auto& a = line.GetAllocator();
        line.AddMember("type", rapidjson::Value(e.type.c_str(), a), a);
        line.AddMember("seq", e.seq, a);
        if (e.type == "sync")
            line.AddMember("complete", e.complete, a);
        else
            line.AddMember("time", rapidjson::Value(e.time.c_str(), a), a);
        std::cout << dc::to_json(line) << '\n';
    } else if (e.type == "sync") {
        std::cerr << "# sync seq=" << e.seq << " complete=" << (e.complete ? "true" : "false")
                  << std::endl;
    } else {
        std::cerr << "# heartbeat seq=" << e.seq << " time=" << e.time << std::endl;
    }
}

bool is_control(const dc::event& e) {
    return e.type == "sync" || e.type == "heartbeat";
}

// Prints the current values, then every event until SIGINT/SIGTERM. A subscription also sends
// the current value as an event (before or after its response); the first event of a path that
// repeats the value already printed is that one and is skipped.
int watch(dc::client& c, const std::vector<std::string>& paths, const output& out) {
    catch_interrupts();
    std::map<std::string, std::optional<rapidjson::Document>> initial;
    // A resumed subscription sends no current value as an event: nothing to skip, nothing to
    // print before the replay.
    const bool resumed = out.subscription.since_seq.has_value();
    for (const auto& raw : paths)
        for (auto& [path, value] : subscribe_path(c, raw, out)) {
            if (resumed) continue;
            const std::string time = now_utc_iso();
            if (out.json) {
                rapidjson::Document line(rapidjson::kObjectType);
                auto& a = line.GetAllocator();
                line.AddMember("path", rapidjson::Value(path.c_str(), a), a);
                line.AddMember("type", "initial", a);
                line.AddMember("value", rapidjson::Value(value, a), a);
                line.AddMember("time", rapidjson::Value(time.c_str(), a), a);
                std::cout << dc::to_json(line) << '\n';
            } else {
                out.change(time, path, value);
            }
            std::cout.flush();
            initial[path] = std::move(value);
        }

    while (!interrupted) {
        auto e = c.next_event(std::chrono::milliseconds(200));
        if (!e || repeats_initial(initial, *e)) continue;
        if (is_control(*e)) {
            print_control(*e, out);
            continue;
        }
        if (out.json) {
            rapidjson::Document line(rapidjson::kObjectType);
            auto& a = line.GetAllocator();
            line.AddMember("path", rapidjson::Value(e->path.c_str(), a), a);
            line.AddMember("type", rapidjson::Value(e->type.c_str(), a), a);
            line.AddMember("value", rapidjson::Value(e->value, a), a);
            line.AddMember("seq", e->seq, a);
            line.AddMember("time", rapidjson::Value(e->time.c_str(), a), a);
            std::cout << dc::to_json(line) << '\n';
        } else {
            out.change(e->time, e->path, e->value);
        }
        std::cout.flush();
    }
    return EXIT_SUCCESS;
}

// `watch --table`: the table of current values, then the table again after each burst of events
// (those already queued are taken together). On a terminal each table replaces the last one.
int watch_table(dc::client& c, const std::vector<std::string>& paths, const output& out) {
    catch_interrupts();
    dc::live_table table;
    std::map<std::string, std::optional<rapidjson::Document>> initial;
    const bool resumed = out.subscription.since_seq.has_value();
    for (const auto& raw : paths) {
        for (auto& [path, value] : subscribe_path(c, raw, out)) {
            std::string unit;
            try {
                unit = dc::unit_of(c.info(path));
            } catch (const dc::rpc_error&) {
                // The value is shown without a unit.
            }
            table.add(path, std::move(unit));
            table.update(path, value, now_utc_iso());
            if (!resumed) initial[path] = std::move(value);
        }
    }

    const bool terminal = isatty(STDOUT_FILENO);
    std::size_t drawn = 0;
    const auto draw = [&] {
        if (drawn > 0) std::cout << (terminal ? dc::redraw_over(drawn) : "\n");
        std::cout << table.render() << std::flush;
        drawn = table.lines();
    };
    draw();
    while (!interrupted) {
        bool changed = false;
        for (auto e = c.next_event(std::chrono::milliseconds(200)); e;
             e = c.next_event(std::chrono::milliseconds(0))) {
            if (repeats_initial(initial, *e)) continue;
            if (is_control(*e)) {
                print_control(*e, output{false});
                continue;
            }
            table.update(e->path, e->value, e->time);
            changed = true;
        }
        if (changed) draw();
    }
    return EXIT_SUCCESS;
}

// One PATH VALUE pair is a set, several a set_many; --confirm adds confirm_timeout.
rapidjson::Document write_values(dc::client& c, const std::vector<std::string>& args,
                                 std::optional<unsigned> confirm) {
    if (args.size() == 2 && !confirm) {
        c.set(args[0], dc::parse_cli_value(args[1]));
        return rapidjson::Document();
    }
    rapidjson::Document params(rapidjson::kObjectType);
    auto& a = params.GetAllocator();
    auto add_pair = [&](rapidjson::Value& to, std::size_t i) {
        to.AddMember("path", rapidjson::Value(args[i].c_str(), a), a);
        to.AddMember("value", rapidjson::Value(dc::parse_cli_value(args[i + 1]), a), a);
    };
    if (args.size() == 2) {
        add_pair(params, 0);
    } else {
        rapidjson::Value updates(rapidjson::kArrayType);
        for (std::size_t i = 0; i < args.size(); i += 2) {
            rapidjson::Value update(rapidjson::kObjectType);
            add_pair(update, i);
            updates.PushBack(update, a);
        }
        params.AddMember("updates", updates, a);
    }
    if (confirm) params.AddMember("confirm_timeout", *confirm, a);
    return c.call(args.size() == 2 ? "set" : "set_many", params);
}

// A pattern read: one row per matched leaf, values with their units, failures as errors; exit
// status 1 when a leaf failed.
int print_pattern_read(dc::client& c, const rapidjson::Document& answer, const output& out) {
    if (out.json || !answer.IsObject() || !answer.HasMember("values")) {
        out.value(answer);
        return EXIT_SUCCESS;
    }
    std::map<std::string, std::string> rows;
    for (const auto& [p, value] : answer["values"].GetObject()) {
        const std::string path(p.GetString(), p.GetStringLength());
        std::string unit;
        if (value.IsNumber()) {
            try {
                unit = dc::unit_of(c.info(path));
            } catch (const dc::rpc_error&) {
                // The value is printed without a unit rather than not at all.
            }
        }
        rows[path] = dc::display_with_unit(value, unit, false);
    }
    bool failed = false;
    if (answer.HasMember("errors"))
        for (const auto& [p, e] : answer["errors"].GetObject()) {
            rows[std::string(p.GetString(), p.GetStringLength())] = error_text(e);
            failed = true;
        }
    std::cout << dc::value_table({rows.begin(), rows.end()}, out.table);
    return failed ? exit_failure : EXIT_SUCCESS;
}

int run_command(dc::client& c, const std::string& command, const std::vector<std::string>& args,
                const output& out) {
    if (command == "get") {
        if (dc::is_pattern(args[0])) return print_pattern_read(c, c.get(args[0]), out);
        auto value = c.get(args[0]);
        if (out.json || !value.IsNumber()) {
            out.value(value);
            return EXIT_SUCCESS;
        }
        std::string unit;
        try {
            unit = dc::unit_of(c.info(args[0]));
        } catch (const dc::rpc_error&) {
            // The value is printed without a unit rather than not at all.
        }
        std::cout << dc::display_with_unit(value, unit, true) << '\n';
    } else if (command == "set") {
        auto result = write_values(c, args, out.confirm);
        // A confirmed commit answers its token, which the user needs for `confirm`.
        if (result.IsObject() && result.HasMember("token") && !out.json)
            out.value(result["token"]);
        else if (out.json)
            out.value(result);
    } else if (command == "confirm") {
        rapidjson::Document params(rapidjson::kObjectType);
        params.AddMember("token", rapidjson::Value(args[0].c_str(), params.GetAllocator()),
                         params.GetAllocator());
        c.call("confirm", params);
        if (out.json) std::cout << "null\n";
    } else if (command == "run") {
        auto result = c.run(args[0], optional_value(args, 1));
        if (out.json || !result.IsNull()) out.value(result);
    } else if (command == "info") {
        out.value(c.info(args[0]));
    } else if (command == "ls") {
        auto leaves = c.list(args.empty() ? "" : args[0]);
        if (out.json || !leaves.IsArray()) {
            out.value(leaves);
            return EXIT_SUCCESS;
        }
        std::size_t width = 0;
        for (const auto& leaf : leaves.GetArray())
            if (leaf.IsObject() && leaf.HasMember("path") && leaf["path"].IsString())
                width = std::max<std::size_t>(width, leaf["path"].GetStringLength());
        for (const auto& leaf : leaves.GetArray()) {
            if (!leaf.IsObject()) continue;
            auto path = leaf.FindMember("path");
            auto info = leaf.FindMember("info");
            const std::string p =
                path != leaf.MemberEnd() ? dc::display_value(path->value, false) : std::string();
            const std::string i =
                info != leaf.MemberEnd() ? dc::display_value(info->value, false) : std::string();
            std::cout << (i.empty() ? p : fmt::format("{:<{}}  {}", p, width, i)) << '\n';
        }
    } else if (command == "history") {
        auto entries = c.history(args.empty() ? 100 : std::stoul(args[0]));
        if (out.json || !entries.IsArray()) {
            out.value(entries);
            return EXIT_SUCCESS;
        }
        for (const auto& entry : entries.GetArray()) {
            if (!entry.IsObject()) continue;
            auto value = entry.FindMember("value");
            const rapidjson::Value null_value;
            out.change(entry.HasMember("time") ? dc::display_value(entry["time"], false) : "-",
                       entry.HasMember("path") ? dc::display_value(entry["path"], false) : "-",
                       value != entry.MemberEnd() ? value->value : null_value);
        }
    } else if (command == "watch") {
        return out.table ? watch_table(c, args, out) : watch(c, args, out);
    }
    return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
    po::options_description visible = global_options();
    po::options_description all;
    all.add(visible).add_options()("command", po::value<std::string>())(
        "args", po::value<std::vector<std::string>>());
    po::positional_options_description positional;
    positional.add("command", 1).add("args", -1);

    po::variables_map vm;
    try {
        po::store(po::command_line_parser(argc, argv)
                      .options(all)
                      .positional(positional)
                      .extra_parser(negative_number_as_argument)
                      .run(),
                  vm);
        po::notify(vm);
    } catch (const po::error& e) {
        return usage_error(e.what());
    }

    const std::string command = vm.count("command") ? vm["command"].as<std::string>() : "";
    auto args =
        vm.count("args") ? vm["args"].as<std::vector<std::string>>() : std::vector<std::string>();

    if (vm.count("version")) {
        std::cout << "dhctl " DH_VERSION "\n";
        return EXIT_SUCCESS;
    }
    if (command == "help" || (command.empty() && vm.count("help"))) {
        if (command.empty() || args.empty()) {
            print_general_help(std::cout);
            return EXIT_SUCCESS;
        }
        if (!commands().count(args[0])) return usage_error("unknown command '" + args[0] + "'");
        print_command_help(args[0], std::cout);
        return EXIT_SUCCESS;
    }
    if (command.empty()) {
        print_general_help(std::cerr);
        return exit_usage;
    }
    auto entry = commands().find(command);
    if (entry == commands().end()) return usage_error("unknown command '" + command + "'");
    if (vm.count("help")) {
        print_command_help(command, std::cout);
        return EXIT_SUCCESS;
    }
    if (args.size() < entry->second.min_args || args.size() > entry->second.max_args)
        return usage_error(fmt::format("usage: dhctl {}", entry->second.synopsis));

    if (vm.count("table") && ((command != "watch" && command != "get") || vm.count("json")))
        return usage_error("--table goes with watch and get only, and not with --json");
    if ((vm.count("since") || vm.count("heartbeat")) && command != "watch")
        return usage_error("--since and --heartbeat go with watch only");
    dc::subscribe_options subscription;
    if (vm.count("since")) subscription.since_seq = vm["since"].as<std::uint64_t>();
    if (vm.count("heartbeat")) {
        const unsigned beat = vm["heartbeat"].as<unsigned>();
        if (beat < 1 || beat > 3600) return usage_error("--heartbeat must be 1..3600 seconds");
        subscription.heartbeat = beat;
    }
    if (command == "set" && args.size() % 2 != 0)
        return usage_error(fmt::format("usage: dhctl {}", entry->second.synopsis));
    std::optional<unsigned> confirm{};
    if (vm.count("confirm")) {
        confirm = vm["confirm"].as<unsigned>();
        if (command != "set" || *confirm < 1 || *confirm > 3600)
            return usage_error("--confirm SECONDS goes with set only, 1 to 3600");
    }
    if (command == "history" && !args.empty()) {
        const std::string& n = args[0];
        if (n.empty() || n.size() > 9 || n.find_first_not_of("0123456789") != std::string::npos)
            return usage_error("history: N must be a non-negative number, not '" + n + "'");
    }

    const double seconds = vm["timeout"].as<double>();
    if (!(seconds > 0) || seconds > 1e7) return usage_error("--timeout must be a positive number");
    dc::options opts;
    opts.timeout = std::chrono::milliseconds(static_cast<long long>(seconds * 1000));

    const bool tls = vm.count("tls") > 0;
    const bool tcp = tls || vm.count("host") || vm.count("port");
    if (tcp && vm.count("socket"))
        return usage_error("--socket cannot be combined with --host/--port/--tls");
    if (tls != (vm.count("cert") && vm.count("key") && vm.count("ca")) ||
        (!tls && (vm.count("cert") || vm.count("key") || vm.count("ca"))))
        return usage_error("--tls needs --cert, --key and --ca, and they need --tls");
    std::string socket_path = default_socket;
    if (vm.count("socket"))
        socket_path = vm["socket"].as<std::string>();
    else if (const char* env = std::getenv("DH_SOCKET"); env && *env)
        socket_path = env;

    std::optional<dc::client> c;
    try {
        if (tcp) {
            const std::string host = vm.count("host") ? vm["host"].as<std::string>() : "localhost";
            const unsigned port = vm.count("port") ? vm["port"].as<unsigned>() : tls ? 9701 : 9700;
            if (port == 0 || port > 65535) return usage_error("--port must be 1..65535");
            if (tls)
                c.emplace(dc::client::tls(host, std::to_string(port),
                                          {vm["cert"].as<std::string>(),
                                           vm["key"].as<std::string>(), vm["ca"].as<std::string>()},
                                          opts));
            else
                c.emplace(dc::client::tcp(host, std::to_string(port), opts));
        } else {
            c.emplace(dc::client::unix_socket(socket_path, opts));
        }
    } catch (const dc::client_error& e) {
        std::cerr << "dhctl: " << e.what() << '\n';
        if (tcp)
            std::cerr << "dhctl: is the daemon running and listening on that port? "
                         "Check --host and --port.\n";
        else
            std::cerr << "dhctl: is the daemon running? Set DH_SOCKET (or --socket) to its "
                         "socket, or start one in the simulated device with `devhost run`.\n";
        return exit_failure;
    }

    try {
        return run_command(
            *c, command, args,
            output{vm.count("json") > 0, vm.count("table") > 0, subscription, confirm});
    } catch (const dc::rpc_error& e) {
        std::cout.flush();
        std::cerr << e.what();
        if (e.has_data()) std::cerr << ' ' << dc::to_json(e.data());
        std::cerr << '\n';
    } catch (const dc::client_error& e) {
        std::cout.flush();
        std::cerr << "dhctl: " << e.what() << '\n';
    }
    return exit_failure;
}
