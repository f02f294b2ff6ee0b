// The k-d tree build's budget account and chunked storage, exactly as charged.
#include <gtest/gtest.h>

#include "raytrace/build_memory.h"
#include "vlkcore_testing.h"

namespace {

using vlkr::raytrace::BuildBudget;
using vlkr::raytrace::ChargedBlock;
using vlkr::raytrace::ChunkedArray;

struct Ref32 {
    int words[8];
};

TEST(BuildBudget, StateIsChargedAndGrowthNeedsAWholeGranule)
{
    BuildBudget budget(3u * (1u << 24) + 479);
    EXPECT_EQ(budget.remaining(), 3u * (1u << 24) + 79);  // 400 bytes of builder state
    {
        ChunkedArray<Ref32> refs;
        ASSERT_TRUE(refs.init(budget, 1u << 24));
        EXPECT_EQ(budget.remaining(), 2u * (1u << 24) + 79);
        EXPECT_EQ(refs.capacity(), std::size_t(1) << 19);
        ASSERT_TRUE(refs.reserve((std::size_t(1) << 19) + 1));  // one more granule and header
        EXPECT_EQ(budget.remaining(), (1u << 24) + 39);
        EXPECT_FALSE(refs.reserve(std::size_t(3) << 19)) << "16,777,255 left: one byte short";
        EXPECT_EQ(budget.remaining(), (1u << 24) + 39);
        refs[(std::size_t(1) << 19)].words[0] = 42;  // the second chunk is real memory
    }
    EXPECT_EQ(budget.remaining(), 3u * (1u << 24) + 79) << "all refunded";
}

TEST(BuildBudget, BlocksRefundOnReleaseAndHandOverKeepsTheMemory)
{
    BuildBudget budget(1u << 20);
    const long long base = vlkTestLiveBytes();
    ChargedBlock a;
    EXPECT_FALSE(a.acquire(budget, 2u << 20, 2u << 20));
    ASSERT_TRUE(a.acquire(budget, 1000, (1u << 20) - 400)) << "the whole account";
    EXPECT_EQ(budget.remaining(), 0u);
    ASSERT_TRUE(a.acquire(budget, 1000, 1024)) << "a new block releases the old one first";
    EXPECT_EQ(budget.remaining(), (1u << 20) - 400 - 1024);
    a.release();
    EXPECT_EQ(budget.remaining(), (1u << 20) - 400);
    ASSERT_TRUE(a.acquire(budget, 64, 64));
    void* kept = a.handOver();
    EXPECT_EQ(vlkTestLiveBytes() - base, 64);
    vlkFree(kept);
    EXPECT_EQ(vlkTestLiveBytes(), base);
}

TEST(BuildBudget, ARefusedChargeIsRememberedUntilCleared)
{
    BuildBudget budget(1000);
    EXPECT_FALSE(budget.refused());
    EXPECT_TRUE(budget.charge(600));
    EXPECT_FALSE(budget.refused()) << "a charge that fits";
    EXPECT_FALSE(budget.charge(1));
    EXPECT_TRUE(budget.refused());
    EXPECT_EQ(budget.remaining(), 0u) << "nothing taken by the refusal";
    budget.refund(600);
    EXPECT_TRUE(budget.refused()) << "a refund does not clear it";
    budget.clearRefused();
    EXPECT_FALSE(budget.refused());
}

TEST(BuildBudget, TrimFreesTheGrownChunksAndRefundsTheirCharges)
{
    BuildBudget budget(4u * (1u << 24) + 400);
    const long long base = vlkTestLiveBytes();
    ChunkedArray<Ref32> refs;
    ASSERT_TRUE(refs.init(budget, 1u << 24));
    const std::uint32_t afterInit = budget.remaining();
    const long long initBytes = vlkTestLiveBytes() - base;
    ASSERT_TRUE(refs.reserve((std::size_t(2) << 19) + 1));  // two granules more
    EXPECT_EQ(budget.remaining(), afterInit - 2 * ((1u << 24) + 40));
    refs.trim();
    EXPECT_EQ(budget.remaining(), afterInit) << "back to what init charged";
    EXPECT_EQ(vlkTestLiveBytes() - base, initBytes) << "the first area stays";
    EXPECT_EQ(refs.capacity(), std::size_t(1) << 19);
    ASSERT_TRUE(refs.reserve((std::size_t(1) << 19) + 1)) << "and can grow again";
    refs.release();
    EXPECT_EQ(budget.remaining(), 4u * (1u << 24));
    EXPECT_EQ(vlkTestLiveBytes(), base);
}

}  // namespace
