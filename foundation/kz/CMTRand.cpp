#include "harl/foundation/kz/CMTRand.h"

#include "harl/foundation/kz/CError.h"

#include <cerrno>
#include <sys/random.h>
#include <system_error>

namespace kz {

P<CMTRand> CMTRand::getGlobal() {
    // Made on first use and never freed, so that no static destructor can pull it from
    // under a late caller. Callers hold getGlobalInstanceMutex(), which also guards the
    // reference count.
    static CMTRand* const instance = [] {
        CMTRand* made = new CMTRand;
        made->addRef();
        return made;
    }();
    return P<CMTRand>(instance);
}

CMutex& CMTRand::getGlobalInstanceMutex() {
    static CMutex mutex;
    return mutex;
}

unsigned int CMTRand::rand32() {
    unsigned int value;
    randData(&value, sizeof(value));
    return value;
}

void CMTRand::randData(void* data, size_t length) {
    unsigned char* out = static_cast<unsigned char*>(data);
    while (length > 0) {
        // Blocks only until the system's generator is seeded, once after boot.
        const ssize_t count = ::getrandom(out, length, 0);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw CError("Cannot draw random bytes from the system",
                         String(std::error_code(errno, std::generic_category()).message()), errno);
        }
        out += count;
        length -= static_cast<size_t>(count);
    }
}

}  // namespace kz
