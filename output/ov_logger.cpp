#include "output/ov_logger.h"

#include <algorithm>
#include <ctime>

#include <fmt/format.h>

namespace ov {

std::string_view rawValue(OVLogLevel level) {
    switch (level) {
        case OVLogLevel::trace: return "trace";
        case OVLogLevel::debug: return "debug";
        case OVLogLevel::info: return "info";
        case OVLogLevel::warning: return "warning";
        case OVLogLevel::error: return "error";
        case OVLogLevel::critical: return "critical";
    }
    return "info";
}

std::optional<OVLogLevel> logLevelFromRawValue(std::string_view raw) {
    for (auto level : {OVLogLevel::trace, OVLogLevel::debug, OVLogLevel::info, OVLogLevel::warning,
                       OVLogLevel::error, OVLogLevel::critical})
        if (rawValue(level) == raw) return level;
    return std::nullopt;
}

platform::OSLog::Type systemLogType(OVLogLevel level) {
    using Type = platform::OSLog::Type;
    switch (level) {
        case OVLogLevel::trace: return Type::debug;
        case OVLogLevel::debug: return Type::info;
        case OVLogLevel::info: return Type::defaultType;
        case OVLogLevel::warning:
        case OVLogLevel::error:
        case OVLogLevel::critical: return Type::error;
    }
    return Type::defaultType;
}

namespace {

// "yyyy-MM-dd'T'HH:mm:ss.SSSxx" in the machine's time zone: milliseconds
// truncated, offset as +HHMM (never "Z").
std::string formatTimestamp(std::chrono::system_clock::time_point timestamp) {
    using namespace std::chrono;
    const auto sinceEpoch = timestamp.time_since_epoch();
    auto secs = duration_cast<seconds>(sinceEpoch);
    auto millis = duration_cast<milliseconds>(sinceEpoch - secs).count();
    if (millis < 0) {  // before 1970: floor, not truncate toward zero
        millis += 1000;
        secs -= seconds(1);
    }
    const std::time_t t = static_cast<std::time_t>(secs.count());
    std::tm tm{};
    localtime_r(&t, &tm);
    const long offset = tm.tm_gmtoff;
    const long absOffset = offset < 0 ? -offset : offset;
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}{}{:02}{:02}", tm.tm_year + 1900, tm.tm_mon + 1,
                       tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, millis, offset < 0 ? '-' : '+',
                       absOffset / 3600, (absOffset % 3600) / 60);
}

}  // namespace

std::string OVLogger::LogMessage::formattedMetadata() const {
    std::vector<std::string> entries;
    entries.reserve(metadata.size());
    for (const auto& [key, value] : metadata) entries.push_back(key + "=" + value);
    // Sorted as rendered strings, which differs from key order where one key is
    // a prefix of another ("a.b=" sorts before "a=").
    std::sort(entries.begin(), entries.end());
    return fmt::format("{}", fmt::join(entries, " "));
}

std::string OVLogger::LogMessage::description() const {
    return fmt::format("{} {} [{}] {} {}", formatTimestamp(timestamp), rawValue(level), category, message,
                       formattedMetadata());
}

std::string OVLogger::LogMessage::systemLogText() const {
    return fmt::format("[{}] {} {}", category, message, formattedMetadata());
}

// MARK: - Engine

const std::shared_ptr<OVLogger>& OVLogger::shared() {
    static auto* engine = new std::shared_ptr<OVLogger>(create(true));
    return *engine;
}

std::shared_ptr<OVLogger> OVLogger::create(bool withSystemLogHandler) {
    auto engine = std::make_shared<OVLogger>(PassKey{}, withSystemLogHandler);
    engine->install(withSystemLogHandler);
    return engine;
}

OVLogger::OVLogger(PassKey, bool)
    : handlerDispatchQueue_(std::make_shared<platform::DispatchQueue>("OVLogStream.Dispatch")) {}

OVLogger::~OVLogger() = default;

void OVLogger::install(bool withSystemLogHandler) {
    if (withSystemLogHandler) {
        auto systemLog = std::make_shared<platform::OSLog>(platform::OSLog::defaultSubsystem, "Orvane");
        setLogHandler(HandlerMode::realtime, [systemLog](const LogMessage& message) {
            const auto type = systemLogType(message.level);
            if (!platform::OSLog::isEnabled(type)) return;
            systemLog->log(type, message.systemLogText());
        });
    }
    // The ring runs on the logging thread and stays for the life of the engine;
    // it holds the engine weakly so that the engine's own wrapper does not keep it alive.
    std::weak_ptr<OVLogger> weakSelf = weak_from_this();
    auto ring = std::make_shared<HandlerWrapper>([weakSelf](const LogMessage& message) {
        if (auto self = weakSelf.lock()) self->ringBuffer_.append(message);
    });
    {
        std::lock_guard lock(handlersMutex_);
        handlers_.push_back(ring);
    }
    ringBufferLogHandler_ = std::move(ring);
}

bool OVLogger::isEnabled(OVLogLevel level, std::string_view category) const {
    std::shared_lock lock(logLevelMutex_);
    OVLogLevel threshold = logLevel_;
    if (!categoryLogLevel_.empty()) {
        if (auto it = categoryLogLevel_.find(category); it != categoryLogLevel_.end()) threshold = it->second;
    }
    return threshold <= level;
}

void OVLogger::setLogLevel(OVLogLevel level) {
    std::unique_lock lock(logLevelMutex_);
    logLevel_ = level;
}

void OVLogger::setLogLevel(std::optional<OVLogLevel> level, std::string_view category) {
    std::unique_lock lock(logLevelMutex_);
    if (level) {
        auto it = categoryLogLevel_.find(category);
        if (it != categoryLogLevel_.end())
            it->second = *level;
        else
            categoryLogLevel_.emplace(std::string(category), *level);
    } else if (auto it = categoryLogLevel_.find(category); it != categoryLogLevel_.end()) {
        categoryLogLevel_.erase(it);
    }
}

OVLogLevel OVLogger::logLevel() const {
    std::shared_lock lock(logLevelMutex_);
    return logLevel_;
}

std::optional<OVLogLevel> OVLogger::logLevel(std::string_view category) const {
    std::shared_lock lock(logLevelMutex_);
    if (auto it = categoryLogLevel_.find(category); it != categoryLogLevel_.end()) return it->second;
    return std::nullopt;
}

OVLogger::HandlerList OVLogger::liveHandlers() const {
    HandlerList live;
    std::lock_guard lock(handlersMutex_);
    live.reserve(handlers_.size());
    for (const auto& weak : handlers_)
        if (auto strong = weak.lock()) live.push_back(std::move(strong));
    return live;
}

void OVLogger::emit(const HandlerList& handlers, std::chrono::system_clock::time_point now, OVLogLevel level,
                    std::string_view category, std::string message, const LogMetadata& loggerMetadata,
                    LogMetadata messageMetadata) {
    // The message's own metadata wins over the logger's on a clash: insert()
    // leaves existing keys alone.
    LogMetadata metadata = std::move(messageMetadata);
    if (metadata.empty())
        metadata = loggerMetadata;
    else
        metadata.insert(loggerMetadata.begin(), loggerMetadata.end());

    const LogMessage line{now, level, std::string(category), std::move(message), std::move(metadata)};
    for (const auto& handler : handlers) {
        // A handler's failure stays inside the handler: logging reports nothing to its callers.
        try {
            (*handler)(line);
        } catch (...) {
        }
    }
}

std::shared_ptr<OVLogger::HandlerWrapper> OVLogger::makeWrapper(HandlerMode mode, Handler handler) {
    if (mode == HandlerMode::realtime) return std::make_shared<HandlerWrapper>(std::move(handler));
    // The wrapper copies the line and hands it to the serial handler queue, so
    // nonblocking handlers see lines one at a time in submission order.
    auto shared = std::make_shared<Handler>(std::move(handler));
    return std::make_shared<HandlerWrapper>([queue = handlerDispatchQueue_, shared](const LogMessage& message) {
        queue->async([shared, message] {
            try {
                (*shared)(message);
            } catch (...) {
            }
        });
    });
}

std::shared_ptr<OVLogger::HandlerWrapper> OVLogger::addLogHandler(HandlerMode mode, Handler handler) {
    auto wrapper = makeWrapper(mode, std::move(handler));
    std::lock_guard lock(handlersMutex_);
    // Forget registrations whose wrapper is gone, so the list stays as long as the live set.
    std::erase_if(handlers_, [](const auto& weak) { return weak.expired(); });
    handlers_.push_back(wrapper);
    return wrapper;
}

void OVLogger::setLogHandler(HandlerMode mode, Handler handler) {
    // Registered first, so that both handlers listen while the old one leaves.
    auto wrapper = addLogHandler(mode, std::move(handler));
    std::shared_ptr<HandlerWrapper> old;
    {
        std::lock_guard lock(handlersMutex_);
        if (externalLogHandler_) {
            const HandlerWrapper* oldPtr = externalLogHandler_.get();
            std::erase_if(handlers_, [oldPtr](const auto& weak) {
                auto strong = weak.lock();
                return !strong || strong.get() == oldPtr;
            });
        }
        old = std::exchange(externalLogHandler_, std::move(wrapper));
    }
    // The old wrapper dies outside the lock: its captures may do anything when destroyed.
}

void OVLogger::flushNonblockingHandlers() {
    handlerDispatchQueue_->sync([] {});
}

// MARK: - Logger

Logger::Logger(std::string category, std::optional<std::string> identifier, LogMetadata metadata,
               std::shared_ptr<OVLogger> ovLogger)
    : ovLogger_(std::move(ovLogger)), category_(std::move(category)), metadata_(std::move(metadata)) {
    if (identifier) metadata_[category_] = std::move(*identifier);
}

Logger Logger::with(std::string category, std::optional<std::string> identifier,
                    const LogMetadata& additionalMetadata) const {
    LogMetadata merged = metadata_;
    for (const auto& [key, value] : additionalMetadata) merged[key] = value;
    return Logger(std::move(category), std::move(identifier), std::move(merged), ovLogger_);
}

}  // namespace ov
