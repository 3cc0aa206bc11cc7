#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/CMutex.h"
#include "harl/foundation/kz/CMutexLock.h"
#include "harl/foundation/kz/P.h"

#include <cstddef>

namespace kz {

// The process-wide random generator. Despite its name it draws every number from the
// operating system's cryptographic generator, because data keys, salts and IVs come from it.
//
// Callers hold a CMutexLock on getGlobalInstanceMutex() for each draw; the generator itself
// takes no lock. Failure of the system's generator throws a CError.
class CMTRand : public CBase {
public:
    static P<CMTRand> getGlobal();
    static CMutex& getGlobalInstanceMutex();

    unsigned int rand32();
    void randData(void* data, size_t length);
};

}  // namespace kz
