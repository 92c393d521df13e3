#pragma once
// Serial work queues: the stand-in for the platform's dispatch queues.
//
// A DispatchQueue owns one worker thread and runs the blocks given to it one at a
// time, in submission order (timed blocks in deadline order, ties by submission).
// The main queue has no thread of its own: the main thread drains it for the
// life of the process through DispatchQueue::runMain().

#include <chrono>
#include <condition_variable>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>

namespace ov::platform {

class DispatchQueue {
public:
    using Block = std::function<void()>;
    using Clock = std::chrono::steady_clock;

    explicit DispatchQueue(std::string label);
    ~DispatchQueue();
    DispatchQueue(const DispatchQueue&) = delete;
    DispatchQueue& operator=(const DispatchQueue&) = delete;

    const std::string& label() const { return label_; }

    // Runs the block later on this queue. An exception escaping the block is
    // logged and dropped: nobody waits for an async block.
    void async(Block block);
    void asyncAfter(Clock::duration delay, Block block);
    void asyncAt(Clock::time_point deadline, Block block);

    // Runs the block on this queue and waits for it; its result or exception
    // comes back to the caller. Called from the queue's own thread the block
    // runs inline instead of dead-locking.
    template <class F>
    auto sync(F&& f) -> std::invoke_result_t<F&> {
        using R = std::invoke_result_t<F&>;
        if (isCurrent()) return f();
        std::packaged_task<R()> task(std::ref(f));
        auto future = task.get_future();
        async([&task] { task(); });
        return future.get();
    }

    // True when the calling thread is running a block of this queue.
    bool isCurrent() const;

    // The process's main queue. Blocks given to it run on the thread that
    // calls runMain().
    static DispatchQueue& main();
    // Drains the main queue forever on the calling thread. Does not return.
    [[noreturn]] static void runMain();
    // For tests: runs the main queue's blocks that are due now, on the caller.
    static void drainMainForTesting();

private:
    struct State;
    struct MainTag {};
    explicit DispatchQueue(MainTag);
    static void runLoop(const std::shared_ptr<State>& state, bool forever);

    std::string label_;
    std::shared_ptr<State> state_;
    std::thread thread_;
};

}  // namespace ov::platform
