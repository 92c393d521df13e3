#pragma once
// Keeping the machine awake while something important runs: the platform's
// process activity. On Linux it is a "block" inhibitor of logind for idle and
// sleep, asked for over the system bus; closing the descriptor that logind
// hands out lifts it. Where there is no system bus or no logind (containers,
// minimal systems), beginning an activity gives a token that holds nothing and
// says why, so that a recording never fails over it.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace ov::platform {

// The options a caller asks for; the inhibitor covers them all at once.
enum ActivityOptions : uint64_t {
    NSActivityIdleDisplaySleepDisabled = 1ull << 40,
    NSActivityIdleSystemSleepDisabled = 1ull << 20,
    NSActivitySuddenTerminationDisabled = 1ull << 14,
    NSActivityAutomaticTerminationDisabled = 1ull << 15,
    NSActivityUserInitiated = 0x00FFFFFFull | NSActivityIdleSystemSleepDisabled,
    NSActivityLatencyCritical = 0xFF00000000ull,
};

class ActivityToken {
public:
    ~ActivityToken();
    ActivityToken(const ActivityToken&) = delete;
    ActivityToken& operator=(const ActivityToken&) = delete;

    // Whether an inhibitor is held.
    bool isHeld() const { return fd_ >= 0; }
    // Why none is held, for the log; empty when one is.
    const std::string& unavailableReason() const { return unavailableReason_; }
    const std::string& reason() const { return reason_; }
    uint64_t options() const { return options_; }

private:
    friend class ProcessInfo;
    ActivityToken(int fd, uint64_t options, std::string reason, std::string unavailableReason)
        : fd_(fd), options_(options), reason_(std::move(reason)), unavailableReason_(std::move(unavailableReason)) {}
    void release();

    int fd_;
    uint64_t options_;
    std::string reason_;
    std::string unavailableReason_;
};

class ProcessInfo {
public:
    // Never fails: without an inhibitor the token says why. Bounded by a short
    // bus time-out, so a wedged bus can't hold up a recording's start.
    static std::shared_ptr<ActivityToken> beginActivity(uint64_t options, const std::string& reason);
    // Lifts the inhibitor now; the token's destruction would do it too.
    static void endActivity(const std::shared_ptr<ActivityToken>& token);
};

}  // namespace ov::platform
