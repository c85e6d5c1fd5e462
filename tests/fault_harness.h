// Allocation-failure runs in the style of SQLite's fault injection: the body
// runs once for every n = 1, 2, 3 ... with the n-th allocation failing, until
// a run reaches its end without meeting the armed allocation.  The body checks
// that a failed run left the documented code and nothing half-changed; the
// sanitizer build checks that nothing leaked.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>

#include "base/kwMem.h"

namespace kwz::test {

// body(fired) runs the operation and checks its outcome; fired() tells
// whether the armed allocation was met (so the result must be the failure
// code and the state unchanged).  Returns the number of runs in which an
// allocation failed.
template <typename Body>
int64_t ForEachAllocationFailure(Body&& body, int64_t limit = 100000) {
    int64_t n = 1;
    for (; n <= limit; ++n) {
        FaultArm(n);
        body([] { return FaultFired(); });
        const bool fired = FaultFired();
        FaultArm(0);
        if (!fired) break;
        if (::testing::Test::HasFatalFailure()) break;
    }
    EXPECT_LE(n, limit) << "the operation kept allocating";
    return n - 1;
}

}  // namespace kwz::test
