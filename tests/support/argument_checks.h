// Argument checks in their documented order, for any family of entry points.
#pragma once

#include <gtest/gtest.h>

#include <vector>

namespace vekr::test {

// Check k spoiled together with every later one (the later ones first, so that k's spoil wins
// where two touch the same argument) gives k's status only in the documented order; then k
// alone, so that no check hides behind another with the same status. A Check has `what`,
// `spoil(Call&)` and `expected`; makeCall() gives a valid call, run(call) its status, and
// call.outputsUntouched() must hold unless mayWrite(call, status).
template <class Check, class MakeCall, class Run, class MayWrite>
void expectChecksInOrder(const std::vector<Check>& checks, MakeCall makeCall, Run run,
                         MayWrite mayWrite)
{
    for (bool alone : {false, true})
        for (size_t k = 0; k < checks.size(); ++k) {
            auto call = makeCall();
            for (size_t j = alone ? k + 1 : checks.size(); j-- > k;)
                checks[j].spoil(call);
            const char* how = alone ? " alone" : " and later";
            EXPECT_EQ(run(call), checks[k].expected) << checks[k].what << how;
            EXPECT_TRUE(mayWrite(call, checks[k].expected) || call.outputsUntouched())
                << checks[k].what << how << ": wrote";
        }
}

}  // namespace vekr::test
