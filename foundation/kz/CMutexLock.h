#pragma once

#include "harl/foundation/kz/CMutex.h"

namespace kz {

// Holds a CMutex for the life of the object.
class CMutexLock {
public:
    explicit CMutexLock(CMutex& mutex) : mutex(mutex) { mutex.lock(); }

    ~CMutexLock() { mutex.unlock(); }

    CMutexLock(const CMutexLock&) = delete;
    CMutexLock& operator=(const CMutexLock&) = delete;

private:
    CMutex& mutex;
};

}  // namespace kz
