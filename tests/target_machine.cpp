// The test program runs as the machine the build targets: in an arm64 cross build, an arm64
// program under emulation, never a program of the build machine.
#include <gtest/gtest.h>
#include <sys/utsname.h>

// One name per test program (ZQAVS_TEST_PROGRAM), so that CTest keeps both.
TEST(ZQAVS_TEST_PROGRAM, RunsAsTheMachineTheBuildTargets)
{
    utsname name{};
    ASSERT_EQ(uname(&name), 0);
    EXPECT_STREQ(name.machine, ZQAVS_TARGET_PROCESSOR);
#if defined(__aarch64__)
    EXPECT_STREQ(ZQAVS_TARGET_PROCESSOR, "aarch64");
#endif
}
