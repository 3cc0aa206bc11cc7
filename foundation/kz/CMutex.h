#pragma once

#include <mutex>

namespace kz {

// A plain mutex. CMutexLock holds it for a scope.
class CMutex {
public:
    void lock() { mutex.lock(); }

    void unlock() { mutex.unlock(); }

private:
    std::mutex mutex;
};

}  // namespace kz
