#include "datastore.hpp"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "metrics.hpp"
#include "msg_log.hpp"
#include "raise.hpp"

namespace {

// Parse-stack capacity of the documents made here; datastore exports are a few kilobytes.
constexpr std::size_t document_capacity = 1024;

// Operational documents are served from the cache for this long after their export.
constexpr std::chrono::seconds cache_lifetime{1};

Document parse(const std::string& text) {
    Document doc(nullptr, document_capacity);
    doc.Parse(text.c_str(), text.size());
    return doc;
}

host::argv_t export_argv(const char* ds) {
    return {"sysrepocfg", "--export", "-f", "json", "-d", ds, "-t", "30"};
}

}  // namespace

std::string json_text(const dh::Value& value) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    value.Accept(writer);
    return {buffer.GetString(), buffer.GetSize()};
}

Document copy_document(const dh::Value& value) {
    Document doc(nullptr, document_capacity);
    doc.CopyFrom(value, doc.GetAllocator());
    return doc;
}

// The documents of one write batch, and their import when it commits.
class datastore_service::staged final : public dh::write_batch::participant {
  public:
    explicit staged(datastore_service& ds) : ds_(ds) {
        std::lock_guard lock(ds.mutex_);
        running_ = ds.export_running();
        running_before_ = json_text(running_);
        diverged_before_ = ds.startup_diverged_;
        if (diverged_before_) {
            startup_ = ds.export_startup();
            startup_before_ = json_text(*startup_);
        } else {
            startup_before_ = running_before_;
        }
    }

    // While startup equals running, the one document stands for both until a startup-only edit
    // gives startup a copy of its own (holding the batch's edits so far).
    void edit(const edit_fn& fn) {
        fn(running_);
        if (startup_) fn(*startup_);
    }
    void edit_startup(const edit_fn& fn) {
        if (!startup_) startup_ = copy_document(running_);
        fn(*startup_);
    }
    void replace_with(const Document& running, const Document& startup) {
        replacement_.emplace(json_text(running), json_text(startup));
    }

    void apply() override {
        const std::string running = replacement_ ? replacement_->first : json_text(running_);
        const std::string startup = replacement_ ? replacement_->second
                                    : startup_   ? json_text(*startup_)
                                                 : running;
        std::lock_guard lock(ds_.mutex_);
        ds_.import(running, "running");
        try {
            ds_.import(startup, "startup");
        } catch (...) {
            ds_.put_back(running_before_, nullptr);
            throw;
        }
        ds_.startup_diverged_ = startup != running;
        ds_.clear_cache();
    }

    void take_back() noexcept override {
        std::lock_guard lock(ds_.mutex_);
        ds_.put_back(running_before_, &startup_before_);
        ds_.startup_diverged_ = diverged_before_;
    }

  private:
    datastore_service& ds_;
    Document running_;
    std::optional<Document> startup_;
    std::string running_before_;
    std::string startup_before_;
    bool diverged_before_ = true;
    std::optional<std::pair<std::string, std::string>> replacement_;
};

datastore_service::datastore_service(const host::door& door, const dh::clock& time)
    : door_(door), time_(time) {}

Document datastore_service::export_running() const {
    return parse(door_.call(export_argv("running"), host::query()));
}

Document datastore_service::export_startup() const {
    return parse(door_.call(export_argv("startup"), host::query()));
}

std::pair<Document, Document> datastore_service::export_configuration() {
    std::lock_guard lock(mutex_);
    Document running = export_running();
    Document startup = startup_diverged_ ? export_startup() : copy_document(running);
    return {std::move(running), std::move(startup)};
}

Document datastore_service::export_checked(datastore ds, const host::argv_t& selection) const {
    host::argv_t argv{
        "/bin/sysrepocfg", "--export", "-f", "json", "-d", std::string(1, static_cast<char>(ds))};
    argv.insert(argv.end(), selection.begin(), selection.end());
    const std::string output = door_.call(argv, host::query());
    Document doc = parse(output);
    if (doc.HasParseError()) {
        MSG_LOG(3, "export_or_else_throw")
            << "Invalid json response: " << output << msg_log::getCodeTrace(__FILE__, __LINE__);
        throw dh_error(22, "Invalid json in response");
    }
    return doc;
}

void datastore_service::note_startup(const Document& running, const Document& startup) {
    std::lock_guard lock(mutex_);
    startup_diverged_ = running != startup;
}

void datastore_service::import(const std::string& json, const char* ds) const {
    try {
        door_.call_status_coded({"sysrepocfg", "--import", "-f", "json", "-d", ds, "-t", "30"},
                                host::in_host().feeding(json));
        metrics::datastore_import(ds, true);
    } catch (...) {
        metrics::datastore_import(ds, false);
        MSG_LOG(3, "import_module")
            << "Failed when trying to set: " << json << msg_log::getCodeTrace(__FILE__, __LINE__);
        throw;
    }
}

datastore_service::staged& datastore_service::staged_in(dh::write_batch& batch) {
    return batch.join<staged>(this, [this] { return std::make_unique<staged>(*this); });
}

void datastore_service::put_back(const std::string& running, const std::string* startup) {
    try {
        import(running, "running");
        if (startup) import(*startup, "startup");
    } catch (const std::exception& e) {
        MSG_LOG(2, "datastore") << "The configuration could not be restored after a failed write: "
                                << e.what() << msg_log::getCodeTrace(__FILE__, __LINE__);
    }
    clear_cache();
}

void datastore_service::edit(const edit_fn& fn) {
    if (auto* batch = dh::write_batch::current()) {
        staged_in(*batch).edit(fn);
        return;
    }
    std::lock_guard lock(mutex_);
    Document running = export_running();
    const std::string before = json_text(running);
    fn(running);
    const std::string running_json = json_text(running);
    import(running_json, "running");
    try {
        if (!startup_diverged_) {
            import(running_json, "startup");
        } else {
            Document startup = export_startup();
            fn(startup);
            import(json_text(startup), "startup");
        }
    } catch (...) {
        // Running must not hold a change that the configuration kept across a reboot lacks.
        put_back(before, nullptr);
        throw;
    }
    clear_cache();
}

void datastore_service::edit_startup(const edit_fn& fn) {
    if (auto* batch = dh::write_batch::current()) {
        staged_in(*batch).edit_startup(fn);
        return;
    }
    std::lock_guard lock(mutex_);
    Document startup = export_startup();
    fn(startup);
    import(json_text(startup), "startup");
    startup_diverged_ = true;
}

void datastore_service::replace_startup(const Document& doc) {
    std::lock_guard lock(mutex_);
    import(json_text(doc), "startup");
    startup_diverged_ = true;
}

void datastore_service::restore(const Document& running, const Document& startup) {
    if (auto* batch = dh::write_batch::current()) {
        staged_in(*batch).replace_with(running, startup);
        return;
    }
    std::lock_guard lock(mutex_);
    import(json_text(running), "running");
    import(json_text(startup), "startup");
    startup_diverged_ = running != startup;
    clear_cache();
}

Document datastore_service::cached_oper(std::string_view module) {
    const std::string key(module);
    {
        std::lock_guard lock(cache_mutex_);
        if (auto it = cache_.find(key); it != cache_.end() && time_.now() < it->second.expires)
            return copy_document(it->second.doc);
    }
    Document fresh = export_checked(datastore::operational, {"-m", key});
    std::lock_guard lock(cache_mutex_);
    cache_.insert_or_assign(key, cached{copy_document(fresh), time_.now() + cache_lifetime});
    return fresh;
}

void datastore_service::clear_cache() {
    std::lock_guard lock(cache_mutex_);
    cache_.clear();
}
