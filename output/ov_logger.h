#pragma once
// The process-wide log engine and the small logger value that every object carries.
//
// A line is a fixed text plus metadata pairs at a level, under a category.
// Varying values go into the metadata. Lines that a threshold filters out cost
// one shared-lock read: the message and metadata arguments are deferred (a
// string literal or a callable), so a filtered line builds no string and takes
// no date.
//
//   logger.debug("Started writer.");
//   logger.info("Appended sample.", [&] { return LogMetadata{{"time", describe(t)}}; });
//   logger.warning([&] { return fmt::format("Queue {} stalled.", label); });

#include <chrono>
#include <concepts>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/dispatch_queue.h"
#include "platform/os_log.h"
#include "foundation/ring_buffer.h"

namespace ov {

// Ordered as declared; comparisons follow this order.
enum class OVLogLevel { trace = 0, debug = 1, info = 2, warning = 3, error = 4, critical = 5 };

std::string_view rawValue(OVLogLevel level);
std::optional<OVLogLevel> logLevelFromRawValue(std::string_view raw);
// One step lower than the names suggest: debug lines are the system's info type,
// info lines its default type.
platform::OSLog::Type systemLogType(OVLogLevel level);

// Sorted by key; the rendering sorts the "key=value" strings themselves.
using LogMetadata = std::map<std::string, std::string>;

namespace detail {

template <class M>
concept LogMessageLiteral = std::is_convertible_v<M, const char*>;

template <class M>
concept LogMessageThunk = std::is_invocable_v<M&> && std::is_convertible_v<std::invoke_result_t<M&>, std::string>;

template <class D>
concept LogMetadataThunk = std::is_invocable_v<D&> && std::is_convertible_v<std::invoke_result_t<D&>, LogMetadata>;

template <class M>
std::string evaluateMessage(M& message) {
    if constexpr (LogMessageLiteral<M>)
        return std::string(static_cast<const char*>(message));
    else
        return std::string(message());
}

struct NoMetadata {
    LogMetadata operator()() const { return {}; }
};

}  // namespace detail

class OVLogger : public std::enable_shared_from_this<OVLogger> {
    struct PassKey {
        explicit PassKey() = default;
    };

public:
    struct LogMessage {
        std::chrono::system_clock::time_point timestamp;
        OVLogLevel level = OVLogLevel::info;
        std::string category;
        std::string message;
        LogMetadata metadata;

        // "key=value" for each entry, sorted ascending, joined with single blanks.
        std::string formattedMetadata() const;
        // The log file's line: timestamp, level, "[category]", message, a blank,
        // then the metadata; a line without metadata thus ends in a blank.
        std::string description() const;
        // What the system log shows: no date and no level, which it keeps itself.
        std::string systemLogText() const;
    };

    enum class HandlerMode { nonblocking = 0, realtime = 1 };

    using Handler = std::function<void(const LogMessage&)>;

    // Holds one registered handler. The registration lives exactly as long as
    // the wrapper: the engine keeps only a weak reference.
    class HandlerWrapper {
    public:
        explicit HandlerWrapper(Handler handler) : handler_(std::move(handler)) {}
        void operator()(const LogMessage& message) const { handler_(message); }

    private:
        Handler handler_;
    };

    static constexpr std::size_t ringBufferCapacity = 1000;

    // The process's engine, made on first use and never destroyed (lines may
    // be logged during static destruction).
    static const std::shared_ptr<OVLogger>& shared();

    // A separate engine, for tests and benchmarks. Without the system-log
    // handler, the ring buffer is its only handler.
    static std::shared_ptr<OVLogger> create(bool withSystemLogHandler = true);

    OVLogger(PassKey, bool withSystemLogHandler);
    ~OVLogger();
    OVLogger(const OVLogger&) = delete;
    OVLogger& operator=(const OVLogger&) = delete;

    // The engine's one entry. message is a string literal or a callable giving a
    // string; messageMetadata a callable giving LogMetadata. Both are evaluated
    // at most once, and only when the line passes the threshold and somebody listens.
    template <class M, class D = detail::NoMetadata>
        requires(detail::LogMessageLiteral<M> || detail::LogMessageThunk<M>) && detail::LogMetadataThunk<D>
    void log(OVLogLevel level, std::string_view category, M&& message, const LogMetadata& loggerMetadata,
             D&& messageMetadata = {}) {
        if (!isEnabled(level, category)) return;
        auto handlers = liveHandlers();
        if (handlers.empty()) return;
        // The date is taken before the message text is evaluated.
        const auto now = std::chrono::system_clock::now();
        std::string text = detail::evaluateMessage(message);
        LogMetadata metadata = messageMetadata();
        emit(handlers, now, level, category, std::move(text), loggerMetadata, std::move(metadata));
    }

    // Whether a line of this level under this category passes the thresholds.
    bool isEnabled(OVLogLevel level, std::string_view category) const;

    void setLogLevel(OVLogLevel level);
    // An absent level removes the category's own threshold, so the global one applies again.
    void setLogLevel(std::optional<OVLogLevel> level, std::string_view category);
    OVLogLevel logLevel() const;
    std::optional<OVLogLevel> logLevel(std::string_view category) const;

    // Registers a handler for as long as the caller keeps the returned wrapper.
    // realtime handlers run on the logging thread and must not block;
    // nonblocking ones run one at a time, in order, on the engine's handler queue.
    std::shared_ptr<HandlerWrapper> addLogHandler(HandlerMode mode, Handler handler);

    // Replaces the one replaceable handler (at first the system-log handler). The
    // new one is registered before the old one leaves, so no line is lost.
    void setLogHandler(HandlerMode mode, Handler handler);

    // The last lines of the process, oldest first.
    const RingBuffer<LogMessage>& ringBuffer() const { return ringBuffer_; }

    // Waits until the nonblocking handlers have seen every line submitted so far.
    void flushNonblockingHandlers();

private:
    using HandlerList = std::vector<std::shared_ptr<HandlerWrapper>>;

    HandlerList liveHandlers() const;
    void emit(const HandlerList& handlers, std::chrono::system_clock::time_point now, OVLogLevel level,
              std::string_view category, std::string message, const LogMetadata& loggerMetadata,
              LogMetadata messageMetadata);
    std::shared_ptr<HandlerWrapper> makeWrapper(HandlerMode mode, Handler handler);
    void install(bool withSystemLogHandler);

    // Thresholds: read concurrently, written exclusively.
    mutable std::shared_mutex logLevelMutex_;
    OVLogLevel logLevel_ = OVLogLevel::debug;
    std::map<std::string, OVLogLevel, std::less<>> categoryLogLevel_;

    // Runs nonblocking handlers; shared with their wrappers, which may outlive the engine.
    std::shared_ptr<platform::DispatchQueue> handlerDispatchQueue_;

    // Guards the registration: handlers_, externalLogHandler_.
    mutable std::mutex handlersMutex_;
    std::vector<std::weak_ptr<HandlerWrapper>> handlers_;
    std::shared_ptr<HandlerWrapper> externalLogHandler_;

    RingBuffer<LogMessage> ringBuffer_{ringBufferCapacity};
    std::shared_ptr<HandlerWrapper> ringBufferLogHandler_;
};

// The logger value every object carries: the engine, a category, and the
// metadata of the chain of objects the lines come through.
class Logger {
public:
    // category is the unqualified name of the owning type. With an identifier,
    // metadata[category] = identifier.
    explicit Logger(std::string category, std::optional<std::string> identifier = std::nullopt,
                    LogMetadata metadata = {}, std::shared_ptr<OVLogger> ovLogger = OVLogger::shared());

    // A logger for a derived object: this metadata merged with additionalMetadata
    // (the additional value wins on a clash), then metadata[category] = identifier.
    Logger with(std::string category, std::optional<std::string> identifier = std::nullopt,
                const LogMetadata& additionalMetadata = {}) const;

    const std::shared_ptr<OVLogger>& ovLogger() const { return ovLogger_; }
    const std::string& category() const { return category_; }
    const LogMetadata& metadata() const { return metadata_; }
    LogMetadata& metadata() { return metadata_; }

    template <class M, class D = detail::NoMetadata>
    void trace(M&& message, D&& metadata = {}) const {
        ovLogger_->log(OVLogLevel::trace, category_, std::forward<M>(message), metadata_, std::forward<D>(metadata));
    }
    template <class M, class D = detail::NoMetadata>
    void debug(M&& message, D&& metadata = {}) const {
        ovLogger_->log(OVLogLevel::debug, category_, std::forward<M>(message), metadata_, std::forward<D>(metadata));
    }
    template <class M, class D = detail::NoMetadata>
    void info(M&& message, D&& metadata = {}) const {
        ovLogger_->log(OVLogLevel::info, category_, std::forward<M>(message), metadata_, std::forward<D>(metadata));
    }
    template <class M, class D = detail::NoMetadata>
    void warning(M&& message, D&& metadata = {}) const {
        ovLogger_->log(OVLogLevel::warning, category_, std::forward<M>(message), metadata_,
                       std::forward<D>(metadata));
    }
    template <class M, class D = detail::NoMetadata>
    void error(M&& message, D&& metadata = {}) const {
        ovLogger_->log(OVLogLevel::error, category_, std::forward<M>(message), metadata_, std::forward<D>(metadata));
    }
    // Critical lines have no front-end of their own: they are rare and go
    // through the engine directly.
    template <class M, class D = detail::NoMetadata>
    void log(OVLogLevel level, M&& message, D&& metadata = {}) const {
        ovLogger_->log(level, category_, std::forward<M>(message), metadata_, std::forward<D>(metadata));
    }

private:
    std::shared_ptr<OVLogger> ovLogger_;
    std::string category_;
    LogMetadata metadata_;
};

}  // namespace ov
