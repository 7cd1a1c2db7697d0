#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <shared_mutex>
#include <utility>
#include <vector>

namespace dh {

// Writes that take effect together or not at all. While a batch is open on a thread, the writes
// made on that thread keep what they would change in it, and commit() makes it happen in three
// steps:
//   1. the participants (the datastore service) apply what they hold, in the order they joined;
//   2. the effects on the host (after_commit) run in the order they were asked for;
//   3. the adoptions (on_success: the nodes' values and their events) run; they cannot fail.
// When step 1 or 2 fails, the participants that applied take it back, the effects already made
// are undone (newest first), and the failure is rethrown; failed_index() then names the update
// whose step failed. A batch that ends without a successful commit() runs its abort actions
// (newest first), which put back the in-memory state the writes changed early.
class write_batch {
  public:
    // Something that holds changes until the batch commits.
    class participant {
      public:
        virtual ~participant() = default;
        // Makes the held changes take effect; when it throws it has changed nothing.
        virtual void apply() = 0;
        // Takes back what apply() did, because a later step of the batch failed.
        virtual void take_back() noexcept = 0;
    };

    // Opens a batch on the calling thread; one thread has one batch at most (std::logic_error).
    write_batch();
    ~write_batch();
    write_batch(const write_batch&) = delete;
    write_batch& operator=(const write_batch&) = delete;

    // The batch open on the calling thread, or null.
    static write_batch* current();

    // Orders writes against batches: a single write holds it shared, a batch (and whoever
    // captures state around one) exclusively, taken before any node or unit lock.
    static std::shared_mutex& gate();

    // The update that the calls that follow belong to (reported by failed_index()).
    void begin_update(std::size_t index) { index_ = index; }

    // The participant registered under `key`, made by `make` (returning std::unique_ptr<P>) and
    // registered at the first call.
    template <class P, class Make>
    P& join(const void* key, Make&& make) {
        for (auto& p : participants_)
            if (p.key == key) return static_cast<P&>(*p.party);
        std::unique_ptr<P> made = make();
        P& ref = *made;
        participants_.push_back({key, index_, std::move(made)});
        return ref;
    }

    // Outside a batch: runs `effect` now (and never `undo`). Inside one: queues both for step 2;
    // with a `key`, once per batch: an effect queued earlier under the same key (a service
    // restart that rereads the whole configuration) stands for this one.
    static void after_commit(std::function<void()> effect, std::function<void()> undo = {},
                             const void* key = nullptr);
    // Outside a batch: runs `adopt` now. Inside one: queues it for step 3.
    static void on_success(std::function<void()> adopt);
    // Inside a batch: runs `undo` unless the batch commits. Outside one: nothing to do.
    static void on_abort(std::function<void()> undo);

    void commit();
    std::size_t failed_index() const { return failed_index_; }

  private:
    struct joined {
        const void* key;
        std::size_t index;
        std::unique_ptr<participant> party;
    };
    struct effect {
        const void* key;
        std::size_t index;
        std::function<void()> run;
        std::function<void()> undo;
    };

    std::size_t index_ = 0;
    std::size_t failed_index_ = 0;
    bool committed_ = false;
    std::vector<joined> participants_;
    std::vector<effect> effects_;
    std::vector<std::function<void()>> adoptions_;
    std::vector<std::function<void()>> aborts_;
};

}  // namespace dh
