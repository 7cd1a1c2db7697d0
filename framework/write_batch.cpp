#include "write_batch.hpp"

#include <algorithm>
#include <exception>
#include <stdexcept>

#include "msg_log.hpp"

namespace dh {

namespace {

thread_local write_batch* open_batch = nullptr;

// Undo steps run while a failure is already being reported: theirs are logged, not thrown.
void run_logged(const std::function<void()>& fn, const char* what) noexcept {
    try {
        fn();
    } catch (const std::exception& e) {
        MSG_LOG(2, "write_batch") << what << " failed: " << e.what()
                                  << msg_log::getCodeTrace(__FILE__, __LINE__);
    } catch (...) {
        MSG_LOG(2, "write_batch") << what << " failed" << msg_log::getCodeTrace(__FILE__, __LINE__);
    }
}

}  // namespace

write_batch::write_batch() {
    if (open_batch) throw std::logic_error("a write batch is open on this thread already");
    open_batch = this;
}

write_batch::~write_batch() {
    open_batch = nullptr;
    if (committed_) return;
    for (auto it = aborts_.rbegin(); it != aborts_.rend(); ++it)
        run_logged(*it, "Putting back state after a failed batch");
}

write_batch* write_batch::current() {
    return open_batch;
}

std::shared_mutex& write_batch::gate() {
    static std::shared_mutex gate;
    return gate;
}

void write_batch::after_commit(std::function<void()> effect, std::function<void()> undo,
                               const void* key) {
    if (!open_batch) {
        effect();
        return;
    }
    auto& effects = open_batch->effects_;
    if (key &&
        std::any_of(effects.begin(), effects.end(), [key](const auto& e) { return e.key == key; }))
        return;
    effects.push_back({key, open_batch->index_, std::move(effect), std::move(undo)});
}

void write_batch::on_success(std::function<void()> adopt) {
    if (!open_batch) {
        adopt();
        return;
    }
    open_batch->adoptions_.push_back(std::move(adopt));
}

void write_batch::on_abort(std::function<void()> undo) {
    if (open_batch) open_batch->aborts_.push_back(std::move(undo));
}

void write_batch::commit() {
    // The steps run with the batch closed: what they call acts at once.
    open_batch = nullptr;
    std::size_t applied = 0;
    std::size_t made = 0;
    try {
        for (; applied < participants_.size(); ++applied) {
            failed_index_ = participants_[applied].index;
            participants_[applied].party->apply();
        }
        for (; made < effects_.size(); ++made) {
            failed_index_ = effects_[made].index;
            effects_[made].run();
        }
    } catch (...) {
        // The participants first: an undo may depend on the state they restore (a service that
        // rereads its configuration when restarted).
        while (applied > 0) participants_[--applied].party->take_back();
        while (made > 0)
            if (const auto& undo = effects_[--made].undo) run_logged(undo, "Undoing a host effect");
        open_batch = this;
        throw;
    }
    committed_ = true;
    for (const auto& adopt : adoptions_) run_logged(adopt, "Adopting a written value");
}

}  // namespace dh
