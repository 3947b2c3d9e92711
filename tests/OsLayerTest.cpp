// The simulated OS layer, system log and root mapping.
#include "CEventFlag.h"
#include "FThread.h"
#include "TestRoot.h"
#include "dlog.h"
#include "fx_os.h"
#include "kernel.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

TEST(EventFlagTest, WaiterWakesWhenAnotherThreadSetsABit)
{
    CEventFlag flag;
    ASSERT_EQ(0, flag.Create(0));
    unsigned long pattern = 0;
    std::thread setter([&] {
        _fx_thread_sleep(__FILE__, __func__, __LINE__, 20);
        flag.Set(0x4);
    });
    EXPECT_EQ(0, flag.WaitOr(0x4, &pattern, -1));
    EXPECT_EQ(0x4UL, pattern);
    setter.join();
}

TEST(EventFlagTest, WaitOrReturnsOnAnyBitOfTheMaskAndKeepsTheBits)
{
    CEventFlag flag;
    ASSERT_EQ(0, flag.Create(0xF0000000UL));
    unsigned long pattern = 0;
    EXPECT_EQ(0, flag.WaitOr(0x1 | 0x80000000UL, &pattern, -1));
    EXPECT_EQ(0xF0000000UL, pattern);

    flag.Clear(0xF0000000UL);
    flag.Set(0x2 | 0x8);
    EXPECT_EQ(0, flag.WaitOr(0x1 | 0x8, &pattern, 0));
    EXPECT_EQ(0xAUL, pattern) << "the flag's bits are handed back whole";
    EXPECT_EQ(-1, flag.WaitOr(0x1, &pattern, 10)) << "no bit of the mask: time-out";
}

TEST(EventFlagTest, DeleteWakesWaitersAndLaterCallsFail)
{
    CEventFlag flag;
    EXPECT_EQ(-1, flag.Set(1)) << "not created yet";
    ASSERT_EQ(0, flag.Create(0));
    std::atomic<int> result{1};
    std::thread waiter([&] {
        unsigned long pattern = 0;
        result = flag.WaitOr(0x1, &pattern, -1);
    });
    _fx_thread_sleep(__FILE__, __func__, __LINE__, 20);
    EXPECT_EQ(0, flag.Delete());
    waiter.join();
    EXPECT_EQ(-2, result.load());
    unsigned long pattern = 0;
    EXPECT_EQ(-2, flag.WaitOr(0x1, &pattern, -1));
    EXPECT_EQ(-1, flag.Delete());
}

class CountingThread : public FThread {
public:
    ~CountingThread() override { Destroy(); }
    std::atomic<int> runs{0};
    std::thread::id ranOn;

protected:
    void t_Main() override
    {
        ranOn = std::this_thread::get_id();
        ++runs;
    }
};

TEST(FThreadTest, BodyRunsOnceOnItsOwnThreadAndDestroyJoins)
{
    CountingThread thread;
    EXPECT_FALSE(thread.IsCreated());
    ASSERT_TRUE(thread.Start());
    EXPECT_FALSE(thread.Start()) << "a created thread cannot start twice";
    thread.Destroy();
    EXPECT_FALSE(thread.IsCreated());
    EXPECT_EQ(1, thread.runs.load());
    EXPECT_NE(std::this_thread::get_id(), thread.ranOn);
    thread.Destroy(); // a second Destroy does nothing
}

TEST(FxMutexTest, MutexSerialisesThreadsAndNullIsRefused)
{
    fx_mutex_t mutex = _fx_mutex_create(__FILE__, __func__, __LINE__);
    ASSERT_NE(nullptr, mutex);
    int counter = 0;
    auto work = [&] {
        for (int i = 0; i < 10000; ++i) {
            _fx_mutex_lock(mutex, __FILE__, __func__, __LINE__);
            ++counter;
            _fx_mutex_unlock(mutex, __FILE__, __func__, __LINE__);
        }
    };
    std::thread a(work), b(work);
    a.join();
    b.join();
    EXPECT_EQ(20000, counter);
    EXPECT_EQ(0, _fx_mutex_delete(mutex, __FILE__, __func__, __LINE__));
    EXPECT_EQ(-1, _fx_mutex_lock(nullptr, __FILE__, __func__, __LINE__));
}

TEST(KernelPathTest, DevicePathsMapBelowTheRoot)
{
    TestRoot root;
    char out[512];
    EXPECT_EQ(static_cast<int>(root.Dir().size() + 9), kernel_map_path("/mnt/mmc/", out, sizeof out));
    EXPECT_EQ(root.Dir() + "/mnt/mmc/", std::string(out));
    EXPECT_EQ("relative.txt", KernelPath("relative.txt"));
    EXPECT_EQ(-1, kernel_map_path("/mnt/mmc/", out, 4)) << "too small";
    EXPECT_STREQ("", out);
    EXPECT_EQ(-1, kernel_map_path(nullptr, out, sizeof out));
}

TEST(KernelPathTest, IdentityWithoutRoot)
{
    unsetenv("PMODE_ROOT");
    EXPECT_EQ("/mnt/mmc/a", KernelPath("/mnt/mmc/a"));
}

TEST(DlogTest, EveryCallAppendsOneLineBelowTheRoot)
{
    TestRoot root;
    EXPECT_GT(__dlog_print(3, DLOG_ERROR, "PMODE", "%s(%d) > %s", "f", 7, "first\n"), 0);
    EXPECT_GT(__dlog_print(3, DLOG_DEBUG, "PMODE", "second"), 0);
    const std::string log = root.ReadFile("/var/log/dlog.log");
    EXPECT_NE(std::string::npos, log.find(" E/PMODE(3): f(7) > first\n"));
    EXPECT_NE(std::string::npos, log.find(" D/PMODE(3): second\n"));
    EXPECT_EQ(2, std::count(log.begin(), log.end(), '\n'));
}

} // namespace
