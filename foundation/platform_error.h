#pragma once
// Errors of the operating system and of other libraries, as one shape: a domain,
// a code and two texts. Any error type can offer that shape by deriving from
// DescribableError; describeError() gives it for every exception.

#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>

namespace ov::platform {

struct ErrorDescription {
    std::string domain;
    int64_t code = 0;
    std::string localizedDescription;
    std::string debugDescription;
};

// An error that knows its domain, code and texts (or embeds an error that does).
class DescribableError {
public:
    virtual ~DescribableError() = default;
    virtual ErrorDescription errorDescription() const = 0;
};

class PlatformError : public std::runtime_error, public DescribableError {
public:
    PlatformError(std::string domain, int64_t code, std::string localizedDescription,
                  std::string debugDescription = {})
        : std::runtime_error(debugDescription.empty() ? localizedDescription : debugDescription),
          description_{std::move(domain), code, std::move(localizedDescription), std::move(debugDescription)} {
        if (description_.debugDescription.empty()) description_.debugDescription = description_.localizedDescription;
    }

    // An error of the C library: domain "NSPOSIXErrorDomain", the errno as code.
    static PlatformError posix(int errnum, const std::string& operation);

    const std::string& domain() const { return description_.domain; }
    int64_t code() const { return description_.code; }
    ErrorDescription errorDescription() const override { return description_; }

private:
    ErrorDescription description_;
};

// The domain, code and texts of any exception. Types that are not
// DescribableError get their type name as domain, code 1 and what() as texts.
ErrorDescription describeError(const std::exception& error);
ErrorDescription describeError(std::exception_ptr error);

// The unqualified-by-compiler, readable name of an exception's dynamic type.
std::string demangledTypeName(const std::exception& error);

}  // namespace ov::platform
