#include "platform/dispatch_queue.h"

#include <map>
#include <utility>

#include "platform/os_log.h"

namespace ov::platform {

struct DispatchQueue::State {
    explicit State(std::string l) : label(std::move(l)) {}
    std::string label;
    std::mutex mutex;
    std::condition_variable cv;
    // Ordered by deadline, then by submission: plain async blocks carry "now" as
    // their deadline, so they keep FIFO order among themselves.
    std::map<std::pair<Clock::time_point, uint64_t>, Block> blocks;
    uint64_t nextSequence = 0;
    bool stopping = false;
};

namespace {
thread_local const void* tCurrentQueue = nullptr;

const OSLog& queueLog() {
    static const OSLog log(OSLog::defaultSubsystem, "DispatchQueue");
    return log;
}
}  // namespace

DispatchQueue::DispatchQueue(std::string label)
    : label_(std::move(label)), state_(std::make_shared<State>(label_)) {
    thread_ = std::thread([state = state_] { runLoop(state, false); });
}

DispatchQueue::DispatchQueue(MainTag)
    : label_("com.apple.main-thread"), state_(std::make_shared<State>(label_)) {}

DispatchQueue::~DispatchQueue() {
    {
        std::lock_guard lock(state_->mutex);
        state_->stopping = true;
    }
    state_->cv.notify_all();
    if (!thread_.joinable()) return;
    // The last owner may let go from inside one of the queue's own blocks: the
    // thread then finishes on its own, holding the state alive.
    if (thread_.get_id() == std::this_thread::get_id())
        thread_.detach();
    else
        thread_.join();
}

void DispatchQueue::async(Block block) { asyncAt(Clock::now(), std::move(block)); }

void DispatchQueue::asyncAfter(Clock::duration delay, Block block) {
    asyncAt(Clock::now() + delay, std::move(block));
}

void DispatchQueue::asyncAt(Clock::time_point deadline, Block block) {
    {
        std::lock_guard lock(state_->mutex);
        state_->blocks.emplace(std::make_pair(deadline, state_->nextSequence++), std::move(block));
    }
    state_->cv.notify_one();
}

bool DispatchQueue::isCurrent() const { return tCurrentQueue == state_.get(); }

void DispatchQueue::runLoop(const std::shared_ptr<State>& state, bool forever) {
    const void* previous = tCurrentQueue;
    tCurrentQueue = state.get();
    std::unique_lock lock(state->mutex);
    for (;;) {
        const auto now = Clock::now();
        if (!state->blocks.empty() && state->blocks.begin()->first.first <= now) {
            auto node = state->blocks.extract(state->blocks.begin());
            lock.unlock();
            try {
                node.mapped()();
            } catch (const std::exception& e) {
                queueLog().error(fmt::format("Uncaught exception in block on queue {}: {}", state->label, e.what()));
            } catch (...) {
                queueLog().error(fmt::format("Uncaught exception in block on queue {}", state->label));
            }
            // Destroy the block (and what it captured) before taking the lock again.
            node = {};
            lock.lock();
            continue;
        }
        // Blocks that are due have run; timed blocks not yet due are dropped
        // with the queue.
        if (state->stopping && !forever) break;
        if (state->blocks.empty())
            state->cv.wait(lock);
        else
            state->cv.wait_until(lock, state->blocks.begin()->first.first);
    }
    state->blocks.clear();
    tCurrentQueue = previous;
}

DispatchQueue& DispatchQueue::main() {
    // Never destroyed: blocks may be posted to it during static destruction.
    static DispatchQueue* queue = new DispatchQueue(MainTag{});
    return *queue;
}

void DispatchQueue::runMain() {
    runLoop(main().state_, true);
    std::terminate();  // unreachable: the main queue never stops
}

void DispatchQueue::drainMainForTesting() {
    auto& state = main().state_;
    const void* previous = tCurrentQueue;
    tCurrentQueue = state.get();
    for (;;) {
        Block block;
        {
            std::lock_guard lock(state->mutex);
            if (state->blocks.empty() || state->blocks.begin()->first.first > Clock::now()) break;
            block = std::move(state->blocks.begin()->second);
            state->blocks.erase(state->blocks.begin());
        }
        block();
    }
    tCurrentQueue = previous;
}

}  // namespace ov::platform
