// Every test program finds the build and source trees through PM_TEST_BINARY_DIR
// and PM_SOURCE_DIR, whether ctest starts it or a person does.
#include <cstdlib>

namespace {

const bool g_environmentSet = [] {
    setenv("PM_TEST_BINARY_DIR", PM_TEST_BINARY_DIR_DEFAULT, 0);
    setenv("PM_SOURCE_DIR", PM_SOURCE_DIR_DEFAULT, 0);
    return true;
}();

} // namespace
