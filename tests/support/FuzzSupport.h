#pragma once

namespace FenRELTest {

// What an ASSERT of the agent throws, inside RunFuzzInput, instead of
// aborting. Deliberately not a std::exception, so that no handler of the code
// under test that catches library exceptions can swallow it.
struct FuzzAssertion {
    const char* file;
    int line;
};

// Makes every ASSERT throw FuzzAssertion (see SetAssertHookForTesting).
void InstallFuzzAssertHook();

// Runs the checks of one fuzz input. The agent's assertions on peer bytes are
// allowed outcomes, so one that fires ends the input cleanly: the throw
// unwinds the harness's locals, which free what they own, and the fuzzer goes
// on. Anything else (a sanitizer report, another exception, a failed check of
// the harness's own) still ends the run as a crash. An ASSERT inside a
// destructor or a noexcept function cannot unwind and still aborts.
template <typename Body>
void RunFuzzInput(Body&& body)
{
    InstallFuzzAssertHook();
    try {
        body();
    } catch (const FuzzAssertion&) {
    }
}

// A check of the harness itself: prints what failed and aborts, which the
// fuzzer reports as a crash.
#define FUZZ_CHECK(cond) ::FenRELTest::FuzzCheck((cond), #cond, __FILE__, __LINE__)
void FuzzCheck(bool ok, const char* what, const char* file, int line);

}  // namespace FenRELTest
