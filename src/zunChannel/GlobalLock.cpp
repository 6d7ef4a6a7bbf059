#include "GlobalLock.h"

namespace ZUNChannel {

boost::recursive_mutex& GlobalLock::Mutex()
{
    static boost::recursive_mutex* mutex = new boost::recursive_mutex();  // outlives every thread
    return *mutex;
}

bool IsLockAvailable()
{
    boost::recursive_mutex& mutex = GlobalLock::Mutex();
    if (!mutex.try_lock()) {
        return false;
    }
    mutex.unlock();
    return true;
}

}  // namespace ZUNChannel
