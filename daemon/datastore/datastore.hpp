#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "dh_types.hpp"
#include "door.hpp"
#include "scheduler.hpp"
#include "write_batch.hpp"

using Document = dh::Document;

// Datastores for checked exports; the character is written after -d on the sysrepocfg command
// line.
enum class datastore : char { running = 'r', operational = 'o', factory_default = 'f' };

// The one owner of the YANG datastore's export, edit and import. Every read-modify-write of the
// configuration goes through edit() or edit_startup(), under the service's lock, so no two writes
// interleave and lose one another; the lock is never held for anything but an export-edit-import
// sequence. Operational exports are cached one second per module.
//
// Inside a write batch (dh::write_batch) on the calling thread, edits go to the batch's documents
// instead: running (and startup, where it differs) is exported at the batch's first edit, every
// edit of the batch changes those documents, and the batch's commit imports them once to running
// and once to startup. The batch runs without the service's lock; the server's write gate keeps
// other writes out meanwhile. Units defer what they change on the host and adopt their models
// through after_commit() and adopt(), which act at once outside a batch.
class datastore_service {
  public:
    using edit_fn = std::function<void(Document&)>;

    // The operational cache's second is measured on `time`.
    explicit datastore_service(const host::door& door, const dh::clock& time = dh::system_clock());

    // `sysrepocfg --export` of running or startup. Unparsable output gives a null document, in
    // which every lookup finds nothing and the caller's own "not found" handling applies.
    Document export_running() const;
    Document export_startup() const;

    // Running and startup as they are now (running, startup). Startup is exported only while it
    // differs from running; otherwise it is a copy of running.
    std::pair<Document, Document> export_configuration();

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

    // Imports `running` and `startup` as they are (the configuration before a commit that was not
    // confirmed). Inside a batch the batch's edits are still made, checking every value written
    // back, but its commit imports these documents instead of the edited ones.
    void restore(const Document& running, const Document& startup);

    // A change on the host that follows a datastore write: run at once outside a batch, after the
    // batch's imports inside one; `undo` reverses it if a later step of the batch fails. Effects
    // with the same non-null `key` run once per batch.
    static void after_commit(std::function<void()> effect, std::function<void()> undo = {},
                             const void* key = nullptr) {
        dh::write_batch::after_commit(std::move(effect), std::move(undo), key);
    }

    // Makes `next` a unit's model. The caller holds `guard`, the lock of `model`; inside a batch
    // the previous model is put back under `guard` if the batch does not commit, so that the
    // batch's later writes build on this one and a failed batch leaves the unit as it was.
    template <class T>
    static void adopt(T& model, T next, std::mutex& guard) {
        if (dh::write_batch::current())
            dh::write_batch::on_abort([&model, &guard, previous = model]() mutable {
                std::lock_guard lock(guard);
                model = std::move(previous);
            });
        model = std::move(next);
    }

  private:
    class staged;

    void import(const std::string& json, const char* ds) const;
    void clear_cache();
    // Imports `running` (and `startup`, unless null) back after a failed write; a failure is
    // logged, the write's own failure being the one reported. mutex_ held.
    void put_back(const std::string& running, const std::string* startup);
    // The batch's documents, exported at the batch's first edit.
    staged& staged_in(dh::write_batch& batch);

    const host::door& door_;
    const dh::clock& time_;

    // Guards every export-edit-import sequence and startup_diverged_; no unit lock is taken
    // while it is held.
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
