#include "WaitFor.h"

#include <thread>

namespace FenRELTest {

testing::AssertionResult WaitFor(const std::function<bool()>& condition,
                                 std::chrono::milliseconds timeout, const std::string& what,
                                 const std::function<std::string()>& describe)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (condition()) {
            return testing::AssertionSuccess();
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            testing::AssertionResult failure = testing::AssertionFailure();
            failure << "timed out after " << timeout.count() << " ms waiting for " << what;
            if (describe) {
                failure << "; seen: " << describe();
            }
            return failure;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

}  // namespace FenRELTest
