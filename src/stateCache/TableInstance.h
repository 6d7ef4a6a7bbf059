#pragma once

#include <boost/intrusive_ptr.hpp>

namespace FenREL {

// The process-wide instance of a table T (a RefCounter): made the first time
// it is asked for and held by those who ask; StateCache holds it for the life
// of the process. An instance that goes forgets itself, so a later call makes
// a fresh one. Called under the global lock, or at start-up before any other
// thread runs.
template <typename T>
class TableInstance {
public:
    static boost::intrusive_ptr<T> GetInstance()
    {
        if (s_instance == nullptr) {
            s_instance = new T();
            s_base = s_instance;
        }
        return boost::intrusive_ptr<T>(s_instance);
    }

protected:
    TableInstance() = default;
    ~TableInstance()
    {
        if (s_base == this) {
            s_instance = nullptr;
            s_base = nullptr;
        }
    }

private:
    static inline T* s_instance = nullptr;
    // The same object seen as this base, for the destructor to compare with
    // once the derived part is gone.
    static inline const TableInstance* s_base = nullptr;
};

}  // namespace FenREL
