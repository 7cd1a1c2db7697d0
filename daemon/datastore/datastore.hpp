#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "dh_types.hpp"
#include "door.hpp"
#include "scheduler.hpp"

using Document = dh::Document;

// Datastores for checked exports; the character is written after -d on the sysrepocfg command
// line.
enum class datastore : char { running = 'r', operational = 'o', factory_default = 'f' };

// The one owner of the YANG datastore's export, edit and import. Every read-modify-write of the
// configuration goes through edit() or edit_startup(), under the service's lock, so no two writes
// interleave and lose one another; the lock is never held for anything but an export-edit-import
// sequence. Operational exports are cached one second per module.
class datastore_service {
  public:
    using edit_fn = std::function<void(Document&)>;

    // The operational cache's second is measured on `time`.
    explicit datastore_service(const host::door& door, const dh::clock& time = dh::system_clock());

    // `sysrepocfg --export` of running or startup. Unparsable output gives a null document, in
    // which every lookup finds nothing and the caller's own "not found" handling applies.
    Document export_running() const;
    Document export_startup() const;

    // Export of `ds` with sysrepocfg selection arguments (-x XPATH, -m MODULE); dh_error 22
    // "Invalid json in response" when the output is not JSON.
    Document export_checked(datastore ds, const host::argv_t& selection) const;

    // Notes whether startup differs from running (read once at start-up). While it does, a write
    // applies its edit to each datastore's own document, so that a startup-only change is kept.
    void note_startup(const Document& running, const Document& startup);

    // Exports running, lets `fn` change the document, imports it to running and then to startup.
    // When `fn` throws or the running import fails, nothing changed; when the startup import
    // fails, running is restored to the document it had. The failure is rethrown.
    void edit(const edit_fn& fn);

    // The same for startup alone (changes that take effect at the next boot).
    void edit_startup(const edit_fn& fn);

    // Replaces startup with `doc` (factory defaults).
    void replace_startup(const Document& doc);

    // The operational document of one module, exported at most once a second.
    Document cached_oper(std::string_view module);

  private:
    void import(const std::string& json, const char* ds) const;
    void clear_cache();

    const host::door& door_;
    const dh::clock& time_;

    // Guards every export-edit-import sequence and startup_diverged_. Taken only by edit(),
    // edit_startup() and replace_startup(); no unit lock is taken while it is held.
    std::mutex mutex_;
    bool startup_diverged_ = true;

    // Guards the operational cache only; never held while sysrepocfg runs.
    std::mutex cache_mutex_;
    struct cached {
        Document doc;
        dh::clock::time_point expires;
    };
    std::unordered_map<std::string, cached> cache_;
};

// Compact JSON text of a value.
std::string json_text(const dh::Value& value);
// A deep copy with an allocator of its own.
Document copy_document(const dh::Value& value);
