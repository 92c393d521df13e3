#pragma once
// Races a body against a deadline.
//
// The body runs on a thread of its own. If it ends first, its value or its own
// failure comes back. If the deadline comes first, the body is asked to stop
// through its std::stop_token and the caller gets the timeout error at once:
// nothing waits for a cancelled body. Such a body may therefore outlive the
// call, so it must own what it touches (capture shared_ptr, never references to
// the caller's locals).

#include <chrono>
#include <cmath>
#include <concepts>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <stop_token>
#include <thread>
#include <type_traits>
#include <utility>
#include <variant>

namespace ov {

// The default failure of a body that ran out of time.
struct TimeoutError : std::runtime_error {
    TimeoutError() : std::runtime_error("The operation timed out.") {}
};

// What a waiter gets when its wait is cancelled.
struct CancellationError : std::runtime_error {
    CancellationError() : std::runtime_error("The operation was cancelled.") {}
};

namespace detail {

// Chosen lazily: only the form the body offers may be named. Derived from
// invoke_result so that a type that is no body has no `type` (a substitution
// failure, not an error, when overloads are tried).
template <class F>
struct TimeoutBodyResultOf : std::invoke_result<F&> {};
template <class F>
    requires std::is_invocable_v<F&, std::stop_token>
struct TimeoutBodyResultOf<F> : std::invoke_result<F&, std::stop_token> {};
template <class F>
using TimeoutBodyResult = typename TimeoutBodyResultOf<F>::type;

template <class R>
struct TimeoutState {
    std::mutex mutex;
    std::condition_variable cv;
    bool finished = false;
    std::optional<std::conditional_t<std::is_void_v<R>, std::monostate, R>> value;
    std::exception_ptr error;
};

template <class F>
decltype(auto) invokeBody(F& body, const std::stop_token& token) {
    if constexpr (std::is_invocable_v<F&, std::stop_token>)
        return body(token);
    else
        return body();
}

template <class E>
std::exception_ptr toExceptionPtr(E&& error) {
    if constexpr (std::is_same_v<std::decay_t<E>, std::exception_ptr>)
        return std::forward<E>(error);
    else
        return std::make_exception_ptr(std::forward<E>(error));
}

}  // namespace detail

// timeout is in seconds (truncated to whole nanoseconds). error is an exception
// object or an exception_ptr, thrown when the deadline wins. body is callable as
// body() or body(std::stop_token). A stop requested on `cancel` is passed on to
// the body, and then the body's own result is awaited, as with no deadline.
template <class E, class F>
    requires(!std::is_invocable_v<E&> && !std::is_invocable_v<E&, std::stop_token>)
auto withTimeout(double timeout, E&& error, F&& body, std::stop_token cancel = {})
    -> detail::TimeoutBodyResult<std::decay_t<F>> {
    using Body = std::decay_t<F>;
    using R = detail::TimeoutBodyResult<Body>;
    using State = detail::TimeoutState<R>;

    std::exception_ptr timeoutError = detail::toExceptionPtr(std::forward<E>(error));
    auto state = std::make_shared<State>();
    std::stop_source bodyStop;

    std::thread([state, token = bodyStop.get_token(), body = Body(std::forward<F>(body))]() mutable {
        std::exception_ptr failure;
        std::optional<std::conditional_t<std::is_void_v<R>, std::monostate, R>> value;
        try {
            if constexpr (std::is_void_v<R>) {
                detail::invokeBody(body, token);
                value.emplace();
            } else {
                value.emplace(detail::invokeBody(body, token));
            }
        } catch (...) {
            failure = std::current_exception();
        }
        {
            std::lock_guard lock(state->mutex);
            state->value = std::move(value);
            state->error = failure;
            state->finished = true;
        }
        state->cv.notify_all();
    }).detach();

    bool cancelled = false;
    std::stop_callback onCancel(cancel, [&] {
        {
            std::lock_guard lock(state->mutex);
            cancelled = true;
        }
        state->cv.notify_all();
    });

    std::unique_lock lock(state->mutex);
    const auto ready = [&] { return state->finished || cancelled; };
    // Beyond a century the deadline is as good as none, and the arithmetic stays in range.
    const double nanos = std::isnan(timeout) ? 0.0 : std::trunc(timeout * 1e9);
    if (nanos >= 3.1e18) {
        state->cv.wait(lock, ready);
    } else {
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::nanoseconds(static_cast<int64_t>(std::max(0.0, nanos)));
        if (!state->cv.wait_until(lock, deadline, ready)) {
            lock.unlock();
            bodyStop.request_stop();
            std::rethrow_exception(timeoutError);
        }
    }
    if (!state->finished) {
        // Cancelled from outside before the deadline: the body is told, and its
        // own outcome (often a cancellation failure) is the answer.
        lock.unlock();
        bodyStop.request_stop();
        lock.lock();
        state->cv.wait(lock, [&] { return state->finished; });
    }
    if (state->error) std::rethrow_exception(state->error);
    if constexpr (!std::is_void_v<R>) return std::move(*state->value);
}

template <class F>
    requires(std::is_invocable_v<std::decay_t<F>&> || std::is_invocable_v<std::decay_t<F>&, std::stop_token>)
auto withTimeout(double timeout, F&& body, std::stop_token cancel = {}) -> detail::TimeoutBodyResult<std::decay_t<F>> {
    return withTimeout(timeout, TimeoutError{}, std::forward<F>(body), std::move(cancel));
}

}  // namespace ov
