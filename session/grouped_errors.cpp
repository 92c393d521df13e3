#include "session/grouped_errors.h"

#include "foundation/ov_error.h"

namespace ov {

GroupedErrors::GroupedErrors(std::vector<std::exception_ptr> errors) : errors_(std::move(errors)) {
    what_ = debugDescription();
}

namespace {
std::string peopleText(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const OVError& e) {
        return e.userMessage() ? *e.userMessage() : e.localizedDescription();
    } catch (...) {
        return platform::describeError(std::current_exception()).localizedDescription;
    }
}
}  // namespace

std::string GroupedErrors::localizedDescription() const {
    if (errors_.empty()) return "No error.";
    std::string text = errors_.front() ? peopleText(errors_.front()) : "An unknown error occurred.";
    if (errors_.size() > 1) text += " and " + std::to_string(errors_.size() - 1) + " other errors.";
    return text;
}

std::string GroupedErrors::debugDescription() const {
    std::string text = std::to_string(errors_.size()) + " errors:";
    for (const auto& error : errors_) {
        text += "\n  ";
        text += error ? platform::describeError(error).debugDescription : "no error value";
    }
    return text;
}

platform::ErrorDescription GroupedErrors::errorDescription() const {
    return {domain, 1, localizedDescription(), debugDescription()};
}

}  // namespace ov
