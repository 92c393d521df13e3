#include "session/short_id.h"

#include <sys/random.h>

#include <cerrno>
#include <random>

namespace ov {

namespace {
// One random byte from the kernel; std::random_device only if getrandom is refused.
unsigned char randomByte() {
    unsigned char byte = 0;
    for (;;) {
        const ssize_t n = getrandom(&byte, 1, 0);
        if (n == 1) return byte;
        if (n < 0 && errno == EINTR) continue;
        break;
    }
    static thread_local std::random_device device;
    return static_cast<unsigned char>(device() & 0xFF);
}
}  // namespace

std::string ShortID::make() {
    // Bytes of 248 and above are dropped so that each of the 62 characters is
    // equally likely (248 = 4 * 62).
    constexpr unsigned limit = 256 - 256 % alphabet.size();
    std::string id;
    id.reserve(length);
    while (id.size() < length) {
        const unsigned byte = randomByte();
        if (byte >= limit) continue;
        id.push_back(alphabet[byte % alphabet.size()]);
    }
    return id;
}

}  // namespace ov
