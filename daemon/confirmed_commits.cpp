#include "confirmed_commits.hpp"

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <array>
#include <fstream>
#include <functional>
#include <iterator>
#include <shared_mutex>
#include <sstream>
#include <stdexcept>
#include <tuple>

#include <fmt/format.h>

#include "msg_log.hpp"
#include "raise.hpp"
#include "write_batch.hpp"

using dh::Value;

namespace {

constexpr const char* channel = "confirmed_commit";

// 128 random bits as 32 hexadecimal digits.
std::string new_token() {
    std::array<unsigned char, 16> bytes{};
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1)
        dh::raise(-5, "No random numbers for a commit token", channel);
    std::string text;
    for (unsigned char b : bytes) fmt::format_to(std::back_inserter(text), "{:02x}", b);
    return text;
}

bool same_token(std::string_view a, std::string_view b) {
    return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

Value paths_of(const std::vector<std::pair<std::string, Document>>& values, dh::Allocator& a) {
    Value paths(rapidjson::kArrayType);
    for (const auto& [path, value] : values) paths.PushBack(Value(path, a), a);
    return paths;
}

}  // namespace

confirmed_commits::confirmed_commits(dh_db& db, datastore_service& ds, dh::scheduler& sched,
                                     std::filesystem::path state_file)
    : db_(db), ds_(ds), sched_(sched), file_(std::move(state_file)) {}

confirmed_commits::~confirmed_commits() {
    std::optional<dh::scheduler::task_id> timer;
    {
        std::lock_guard lock(mutex_);
        timer = timer_;
    }
    if (timer) sched_.cancel(*timer);
}

void confirmed_commits::attach_status(std::shared_ptr<commit_status_node> node) {
    status_ = std::move(node);
    publish("idle", nullptr);
}

void confirmed_commits::publish(std::string_view state, const pending* p, std::string_view reason) {
    if (!status_) return;
    Document value(rapidjson::kObjectType);
    auto& a = value.GetAllocator();
    value.AddMember("state", Value(state.data(), static_cast<rapidjson::SizeType>(state.size()), a),
                    a);
    if (p) {
        value.AddMember("token", Value(p->token, a), a);
        value.AddMember("paths", paths_of(p->values, a), a);
        if (state == "pending") value.AddMember("timeout", p->timeout, a);
    }
    if (!reason.empty())
        value.AddMember(
            "reason", Value(reason.data(), static_cast<rapidjson::SizeType>(reason.size()), a), a);
    status_->set_value(std::move(value));
}

void confirmed_commits::check_write_allowed() {
    std::lock_guard lock(mutex_);
    if (pending_)
        dh::raise(-16,
                  "A confirmed commit awaits confirmation: confirm it or wait for its rollback",
                  channel);
}

std::string confirmed_commits::commit_confirmed(
    const std::vector<std::shared_ptr<dh_db_leaf_node>>& nodes, std::chrono::seconds timeout,
    const std::function<void()>& apply) {
    check_write_allowed();
    pending p;
    p.token = new_token();
    p.timeout = timeout.count();
    std::tie(p.running, p.startup) = ds_.export_configuration();
    if (!p.running.IsObject() || !p.startup.IsObject())
        dh::raise(-5, "The configuration to return to could not be read", channel);
    for (const auto& node : nodes) {
        const std::string path = node->get_path(0);
        Document value;
        node->get(path, value.GetAllocator(), value);
        p.values.emplace_back(path, std::move(value));
    }
    // On disk before anything changes: a daemon that stops from here on rolls back at its start.
    save(p);
    try {
        apply();
    } catch (...) {
        remove_file();
        throw;
    }
    const std::string token = p.token;
    std::lock_guard lock(mutex_);
    publish("pending", &p);
    MSG_LOG(6, channel) << "Commit of " << p.values.size()
                        << " parameter(s) applied; rolled back unless confirmed within "
                        << p.timeout << " s" << msg_log::getCodeTrace(__FILE__, __LINE__);
    pending_ = std::move(p);
    timer_ = sched_.after(
        timeout, [this, token] { expire(token); }, dh::scheduler::on::pool);
    return token;
}

void confirmed_commits::confirm(std::string_view token) {
    std::optional<dh::scheduler::task_id> timer;
    {
        std::lock_guard lock(mutex_);
        if (!pending_) dh::raise(-2, "No commit awaits confirmation", channel);
        if (!same_token(token, pending_->token)) dh::raise(-22, "Unknown commit token", channel);
        remove_file();
        publish("confirmed", &*pending_);
        pending_.reset();
        timer = std::exchange(timer_, std::nullopt);
    }
    MSG_LOG(6, channel) << "Commit confirmed" << msg_log::getCodeTrace(__FILE__, __LINE__);
    // Outside the lock: cancel() waits for a timeout that has started, and that takes the lock.
    if (timer) sched_.cancel(*timer);
}

void confirmed_commits::expire(const std::string& token) {
    std::unique_lock gate(dh::write_batch::gate());
    pending p;
    {
        std::lock_guard lock(mutex_);
        if (!pending_ || pending_->token != token) return;
        p = std::move(*pending_);
        pending_.reset();
        timer_.reset();
    }
    MSG_LOG(4, channel) << "Commit not confirmed within " << p.timeout << " s: rolling back"
                        << msg_log::getCodeTrace(__FILE__, __LINE__);
    roll_back(p, "timeout");
}

void confirmed_commits::recover() {
    std::optional<pending> p;
    try {
        p = load();
    } catch (const std::exception& e) {
        MSG_LOG(3, channel) << "Unusable pending commit file " << file_ << " removed: " << e.what()
                            << msg_log::getCodeTrace(__FILE__, __LINE__);
        remove_file();
        return;
    }
    if (!p) return;
    MSG_LOG(4, channel) << "A commit was pending when the daemon stopped: rolling back"
                        << msg_log::getCodeTrace(__FILE__, __LINE__);
    std::unique_lock gate(dh::write_batch::gate());
    roll_back(*p, "restart");
}

void confirmed_commits::roll_back(const pending& p, std::string_view reason) {
    std::vector<std::shared_ptr<dh_db_leaf_node>> unset;
    try {
        dh::write_batch batch;
        ds_.restore(p.running, p.startup);
        for (std::size_t i = 0; i < p.values.size(); ++i) {
            const auto& [path, value] = p.values[i];
            auto node = db_.find_leaf_node(path);
            if (!node) continue;
            batch.begin_update(i);
            if (value.IsNull())
                unset.push_back(std::move(node));
            else
                node->set(path, value);
        }
        batch.commit();
    } catch (const std::exception& e) {
        // The configuration goes back at least; values and host state may lag until rewritten.
        MSG_LOG(2, channel) << "Rollback through the parameters failed (" << e.what()
                            << "); importing the previous configuration only"
                            << msg_log::getCodeTrace(__FILE__, __LINE__);
        try {
            ds_.restore(p.running, p.startup);
        } catch (const std::exception& again) {
            MSG_LOG(2, channel) << "The previous configuration could not be imported: "
                                << again.what() << msg_log::getCodeTrace(__FILE__, __LINE__);
        }
    }
    for (const auto& node : unset) node->reset();
    remove_file();
    std::lock_guard lock(mutex_);
    publish("rolledBack", &p, reason);
    MSG_LOG(4, channel) << "Commit rolled back (" << reason << ")"
                        << msg_log::getCodeTrace(__FILE__, __LINE__);
}

void confirmed_commits::save(const pending& p) const {
    Document doc(rapidjson::kObjectType);
    auto& a = doc.GetAllocator();
    doc.AddMember("token", Value(p.token, a), a);
    doc.AddMember("timeout", p.timeout, a);
    doc.AddMember("running", Value(p.running, a), a);
    doc.AddMember("startup", Value(p.startup, a), a);
    Value values(rapidjson::kArrayType);
    for (const auto& [path, value] : p.values) {
        Value entry(rapidjson::kObjectType);
        entry.AddMember("path", Value(path, a), a);
        entry.AddMember("value", Value(value, a), a);
        values.PushBack(entry, a);
    }
    doc.AddMember("values", values, a);

    std::error_code ec;
    std::filesystem::create_directories(file_.parent_path(), ec);
    // Written beside and renamed over, so that a stop halfway leaves no torn file.
    const auto temporary = std::filesystem::path(file_).concat(".new");
    {
        std::ofstream out(temporary, std::ios::out | std::ios::trunc);
        out << json_text(doc) << '\n';
        out.flush();
        if (!out) dh::raise(-5, "Cannot write " + file_.string(), channel);
    }
    std::filesystem::rename(temporary, file_, ec);
    if (ec) dh::raise(-5, "Cannot write " + file_.string(), channel);
}

std::optional<confirmed_commits::pending> confirmed_commits::load() const {
    std::ifstream in(file_);
    if (!in) return std::nullopt;
    std::stringstream text;
    text << in.rdbuf();
    Document doc;
    doc.Parse(text.str().c_str());
    auto member = [&](const char* name) -> const Value& {
        if (!doc.IsObject() || !doc.HasMember(name))
            throw std::runtime_error(fmt::format("no \"{}\"", name));
        return doc[name];
    };
    pending p;
    const Value& token = member("token");
    const Value& timeout = member("timeout");
    const Value& running = member("running");
    const Value& startup = member("startup");
    const Value& values = member("values");
    if (!token.IsString() || !timeout.IsInt64() || !running.IsObject() || !startup.IsObject() ||
        !values.IsArray())
        throw std::runtime_error("members of the wrong type");
    p.token = token.GetString();
    p.timeout = timeout.GetInt64();
    p.running = copy_document(running);
    p.startup = copy_document(startup);
    for (const auto& entry : values.GetArray()) {
        if (!entry.IsObject() || !entry.HasMember("path") || !entry["path"].IsString() ||
            !entry.HasMember("value"))
            throw std::runtime_error("a value entry without path or value");
        p.values.emplace_back(entry["path"].GetString(), copy_document(entry["value"]));
    }
    return p;
}

void confirmed_commits::remove_file() const {
    std::error_code ignored;
    std::filesystem::remove(file_, ignored);
}
