// Has the library's allocations fail, one at a time. Any thread.
#pragma once

#include <gtest/gtest.h>

namespace qvtest {

// The n-th allocation from now on fails, counted from 1; with 0 none does. Counting begins anew.
void FailAllocation(int nth);
int Allocations();  // since then

// Runs the body with each of its allocations failing in turn, and whole after each of them.
//  @param body    true when every call in it succeeded; it has given everything back in any case
//  @param nothing checks that nothing is left
template <class Body, class Nothing>
void FailEachAllocation(Body body, Nothing nothing) {
    FailAllocation(0);
    ASSERT_TRUE(body()) << "with all the memory there is";
    const int allocations = Allocations();
    ASSERT_GT(allocations, 0);
    for (int n = 1; n <= allocations; ++n) {
        FailAllocation(n);
        body();
        EXPECT_GE(Allocations(), n) << "was not reached";
        FailAllocation(0);
        nothing();
        EXPECT_TRUE(body()) << "after the failure of allocation " << n;
    }
    testing::Test::RecordProperty("allocations", allocations);
}

}  // namespace qvtest
