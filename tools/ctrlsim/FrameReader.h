#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "Bytes.h"
#include "Frame.h"

namespace CtrlSim {

// Cuts a byte stream into frames; the stream may arrive in any split. A wrong
// marker or a `length` below the header size leaves no way to find the next
// frame: the reader then stays broken and says why.
// Not thread-safe; one reader per connection.
class FrameReader {
public:
    // Appends every frame that `data` completes to `out`. False once broken.
    bool Feed(const uint8_t* data, size_t size, std::vector<Frame>& out);

    bool Broken() const { return !_error.empty(); }
    const std::string& Error() const { return _error; }
    // Bytes held of a frame not yet complete.
    size_t Pending() const { return _pending.size(); }

private:
    Bytes _pending;
    std::string _error;
};

}  // namespace CtrlSim
