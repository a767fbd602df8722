// Linked into a test program, ends it when one of its tests hangs. The tests' own time is
// milliseconds.

#include "tests/stress/Watchdog.h"

#include <optional>

namespace {

class TestWatch : public testing::EmptyTestEventListener
{
    void OnTestStart(const testing::TestInfo&) override
    {
        watchdog.emplace(std::chrono::seconds(30));
    }
    void OnTestEnd(const testing::TestInfo&) override { watchdog.reset(); }

    std::optional<Watchdog> watchdog;
};

[[maybe_unused]] const bool watching = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new TestWatch);
    return true;
}();

} // namespace
