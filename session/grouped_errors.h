#pragma once
// Several failures of one operation (prepare or finish of all recorders), told
// as one error: the first one speaks for the group in the text for people, and
// the debug text lists them all.

#include <exception>
#include <string>
#include <vector>

#include "foundation/platform_error.h"

namespace ov {

class GroupedErrors : public std::exception, public platform::DescribableError {
public:
    static constexpr const char* domain = "Orvane.GroupedErrors";

    GroupedErrors() : GroupedErrors(std::vector<std::exception_ptr>{}) {}
    explicit GroupedErrors(std::vector<std::exception_ptr> errors);

    const std::vector<std::exception_ptr>& errors() const { return errors_; }
    bool empty() const { return errors_.empty(); }

    // "No error."; the first error's text (its user message, for an OVError that
    // has one); with more, " and <n> other errors." after it.
    std::string localizedDescription() const;
    // "<n> errors:" and each error's debug text on a line of its own, indented by two blanks.
    std::string debugDescription() const;

    const char* what() const noexcept override { return what_.c_str(); }
    platform::ErrorDescription errorDescription() const override;

private:
    std::vector<std::exception_ptr> errors_;
    std::string what_;
};

}  // namespace ov
