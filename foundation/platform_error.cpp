#include "foundation/platform_error.h"

#include <cxxabi.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <typeinfo>

namespace ov::platform {

PlatformError PlatformError::posix(int errnum, const std::string& operation) {
    const std::string text = std::strerror(errnum);
    return PlatformError("NSPOSIXErrorDomain", errnum, text, operation + ": " + text);
}

std::string demangledTypeName(const std::exception& error) {
    const char* mangled = typeid(error).name();
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> name(abi::__cxa_demangle(mangled, nullptr, nullptr, &status), std::free);
    return status == 0 && name ? std::string(name.get()) : std::string(mangled);
}

ErrorDescription describeError(const std::exception& error) {
    if (const auto* describable = dynamic_cast<const DescribableError*>(&error))
        return describable->errorDescription();
    ErrorDescription d;
    d.domain = demangledTypeName(error);
    d.code = 1;
    const char* what = error.what();
    d.localizedDescription = what && *what ? what : "The operation couldn't be completed. (" + d.domain + " error 1.)";
    d.debugDescription = d.localizedDescription;
    return d;
}

ErrorDescription describeError(std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        return describeError(e);
    } catch (...) {
        return {"unknown", 1, "An unknown error occurred.", "non-standard exception"};
    }
}

}  // namespace ov::platform
