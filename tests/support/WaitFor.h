#pragma once

#include <chrono>
#include <functional>
#include <string>

#include <gtest/gtest.h>

namespace FenRELTest {

// Polls `condition` until it holds or `timeout` passes; the failure message
// says what was awaited and, if given, what `describe` reports at the end.
testing::AssertionResult WaitFor(const std::function<bool()>& condition,
                                 std::chrono::milliseconds timeout, const std::string& what,
                                 const std::function<std::string()>& describe = nullptr);

}  // namespace FenRELTest
