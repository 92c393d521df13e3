#include "audio/echo/echo_reference_source.h"

#include <mutex>

namespace ov {

namespace {
std::mutex& factoryMutex() {
    static std::mutex mutex;
    return mutex;
}
EchoReferenceSourceFactory& factoryStorage() {
    static EchoReferenceSourceFactory factory;
    return factory;
}
}  // namespace

void setEchoReferenceSourceFactory(EchoReferenceSourceFactory factory) {
    std::lock_guard lock(factoryMutex());
    factoryStorage() = std::move(factory);
}

EchoReferenceSourceFactory echoReferenceSourceFactory() {
    std::lock_guard lock(factoryMutex());
    return factoryStorage();
}

}  // namespace ov
