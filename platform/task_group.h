#pragma once
// Concurrent child work that a caller awaits as a whole: one thread per child,
// results and errors collected by the position at which the child was added.
//
// Children share one stop source; cancel() asks them all to stop, and a child
// that wants to honour it takes a std::stop_token.

#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <thread>
#include <type_traits>
#include <variant>
#include <vector>

namespace ov::platform {

template <class T>
struct TaskResult {
    // Exactly one of the two is set once the child has finished.
    std::optional<T> value;
    std::exception_ptr error;
    bool ok() const { return !error; }
    // The value, or the child's exception rethrown.
    T& get() {
        if (error) std::rethrow_exception(error);
        return *value;
    }
};

template <class T = std::monostate>
class TaskGroup {
public:
    TaskGroup() = default;
    TaskGroup(const TaskGroup&) = delete;
    TaskGroup& operator=(const TaskGroup&) = delete;
    ~TaskGroup() { joinAll(); }

    // Starts the child now. F is callable as F() or F(std::stop_token) and
    // returns T (or void when T is std::monostate).
    template <class F>
    void add(F&& body) {
        auto slot = std::make_unique<TaskResult<T>>();
        threads_.emplace_back([r = slot.get(), token = stop_.get_token(), body = std::forward<F>(body)]() mutable {
            // Each child writes only its own slot; join() publishes it.
            try {
                r->value.emplace(invoke(body, token));
            } catch (...) {
                r->error = std::current_exception();
            }
        });
        slots_.push_back(std::move(slot));
    }

    // Waits for every child and returns the results in the order of add().
    std::vector<TaskResult<T>> wait() {
        joinAll();
        std::vector<TaskResult<T>> out;
        out.reserve(slots_.size());
        for (auto& slot : slots_) out.push_back(std::move(*slot));
        slots_.clear();
        threads_.clear();
        return out;
    }

    // Waits for every child; rethrows the first error by position.
    std::vector<T> waitThrowing() {
        auto results = wait();
        std::vector<T> values;
        values.reserve(results.size());
        for (auto& r : results) values.push_back(std::move(r.get()));
        return values;
    }

    void cancel() { stop_.request_stop(); }
    std::stop_token token() const { return stop_.get_token(); }
    size_t size() const { return threads_.size(); }

private:
    template <class F>
    static T invoke(F& body, const std::stop_token& token) {
        if constexpr (std::is_invocable_v<F&, std::stop_token>) {
            if constexpr (std::is_void_v<std::invoke_result_t<F&, std::stop_token>>) {
                body(token);
                return T{};
            } else {
                return body(token);
            }
        } else {
            if constexpr (std::is_void_v<std::invoke_result_t<F&>>) {
                body();
                return T{};
            } else {
                return body();
            }
        }
    }

    void joinAll() {
        for (auto& t : threads_)
            if (t.joinable()) t.join();
    }

    std::stop_source stop_;
    // One heap slot per child, so that adding a child never moves a slot that
    // a running child writes to.
    std::vector<std::unique_ptr<TaskResult<T>>> slots_;
    std::vector<std::thread> threads_;
};

}  // namespace ov::platform
