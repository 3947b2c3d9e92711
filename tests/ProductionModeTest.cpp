// The controller's state as seen before any run.
#include "ProductionMode.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

TEST(ProductionModeTest, OneInstanceIdleUntilARunStarts)
{
    std::vector<CProductionMode*> seen(4, nullptr);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i) threads.emplace_back([&, i] { seen[i] = CProductionMode::GetInstance(); });
    for (auto& thread : threads) thread.join();
    for (CProductionMode* instance : seen) EXPECT_EQ(CProductionMode::GetInstance(), instance);

    CProductionMode* mode = CProductionMode::GetInstance();
    EXPECT_FALSE(mode->IsActive());
    EXPECT_EQ(OP_TYPE_NONE, mode->GetOperationType());
}

} // namespace
