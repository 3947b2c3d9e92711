// Every test program finds the build and source trees through PM_TEST_BINARY_DIR
// and PM_SOURCE_DIR, whether ctest starts it or a person does.
#include <cstdlib>

#ifdef PM_TEST_EMULATOR
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>
#endif

namespace {

const bool g_environmentSet = [] {
    setenv("PM_TEST_BINARY_DIR", PM_TEST_BINARY_DIR_DEFAULT, 0);
    setenv("PM_SOURCE_DIR", PM_SOURCE_DIR_DEFAULT, 0);
    return true;
}();

#ifdef PM_TEST_EMULATOR
// A cross build's tests run under an emulator (qemu-user), which cannot execute
// the target's programs by itself: "threadsafe" death tests re-execute the test
// program through it (the command line is known only once GoogleTest has it).
class EmulatedDeathTests : public testing::Environment {
public:
    void SetUp() override
    {
        std::vector<std::string> argvs;
        std::istringstream words(PM_TEST_EMULATOR);
        for (std::string word; words >> word;) argvs.push_back(word);
        for (const std::string& arg : testing::internal::GetArgvs()) argvs.push_back(arg);
        testing::internal::SetInjectableArgvs(argvs);
    }
};

const bool g_emulatedDeathTests = [] {
    testing::AddGlobalTestEnvironment(new EmulatedDeathTests);
    return true;
}();
#endif

} // namespace
