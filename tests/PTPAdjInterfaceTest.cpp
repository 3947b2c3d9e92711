// The transfer interface: one answer per request, only over the host link, misuse
// reported like a failed assert() without ending the process.
#include "CPTPAdjInterface.h"
#include "OperationTypeHook.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>

namespace {

CPTPAdjInterface* transfer = CPTPAdjInterface::GetInstance();

/// What the interface holds for the host: "<type> <response> <data or -> <file name>".
std::string State()
{
    unsigned int code = 1, value2 = 1, value3 = 1;
    transfer->GetRespond(code, value2, value3);
    char text[64];
    std::snprintf(text, sizeof text, "%u %x,%u,%u ", transfer->GetTransferDataType(), code, value2, value3);
    const char* data = reinterpret_cast<const char*>(transfer->GetData());
    return text + (data != nullptr ? std::string(data, transfer->GetDataSize()) : "-") + " " + transfer->GetFileName();
}

TEST(PTPAdjInterfaceTest, SettersDoNothingOutsideTheHostLink)
{
    unsigned char bytes[4] = {1, 2, 3, 4};
    for (int type : {OP_TYPE_NONE, OP_TYPE_SCRIPT}) {
        pm_test::SetOperationType(type);
        testing::internal::CaptureStderr();
        transfer->SetRespond(0x10000002, 1, 0);
        transfer->SetData(bytes, sizeof bytes);
        transfer->SetData(nullptr, 0); // misuse is not even checked here
        transfer->SetFile("/mnt/mmc/a.csv");
        EXPECT_EQ("", testing::internal::GetCapturedStderr()) << "operation type " << type;
        EXPECT_EQ("0 10000000,0,0 - ", State()) << "operation type " << type;
    }
}

TEST(PTPAdjInterfaceTest, HoldsOneAnswerUntilDispatchAndMisuseIsReportedAndChangesNothing)
{
    pm_test::SetOperationType(OP_TYPE_PTP);
    const char* respond = "SetRespond(long unsigned int, long unsigned int, long unsigned int)";
    const char* data = "SetData(unsigned char*, int)";
    const char* file = "SetFile(const char*)";
    const std::string full = "ffffffff,2147483648,7 ", longest(127, 'p');
    unsigned char text[] = "abcdefghij";
    // Each step: the call, the state after it ("" when unchanged) and the method whose
    // failed check it reports ("" for none).
    const struct {
        std::function<void()> call;
        std::string state;
        const char* report;
    } steps[] = {
        {[&] { transfer->SetRespond(0x10000002, 1, 0); }, "1 10000002,1,0 - ", ""},
        {[&] { transfer->SetRespond(0x10000003, 1, 0); }, "", respond},
        {[&] { transfer->SetFile("/mnt/mmc/x"); }, "", file},
        {[&] { transfer->Dispatch(); }, "0 10000002,1,0 - ", ""}, // the response stays, to be sent again
        {[&] { transfer->SetRespond(0xFFFFFFFFUL, 0x80000000UL, 7); }, "1 " + full + "- ", ""},
        {[&] { transfer->Dispatch(); }, "0 " + full + "- ", ""},
        {[&] { transfer->SetData(text, 0); }, "", data},
        {[&] { transfer->SetData(nullptr, 3); }, "", data},
        {[&] { transfer->SetData(text, 1); }, "2 " + full + "a ", ""},
        {[&] { transfer->Dispatch(); }, "0 " + full + "- ", ""},
        {[&] {
             transfer->SetData(text, 10);
             text[0] = 'Z'; // the interface holds a copy
         },
         "2 " + full + "abcdefghij ", ""},
        {[&] { transfer->Dispatch(); }, "0 " + full + "- ", ""},
        {[&] { transfer->SetFile(nullptr); }, "", file},
        {[&] { transfer->SetFile(std::string(128, 'q').c_str()); }, "", file},
        {[&] { transfer->SetFile(longest.c_str()); }, "3 " + full + "- " + longest, ""},
        {[&] { transfer->SetData(text, 3); }, "", data},
        {[&] { transfer->Dispatch(); }, "0 " + full + "- " + longest, ""}, // the name stays
    };
    for (size_t step = 0; step < std::size(steps); ++step) {
        SCOPED_TRACE("step " + std::to_string(step + 1));
        const std::string before = State();
        testing::internal::CaptureStderr();
        steps[step].call();
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(steps[step].state.empty() ? before : steps[step].state, State());
        if (*steps[step].report == '\0') {
            EXPECT_EQ("", err);
        } else {
            EXPECT_THAT(err, testing::AllOf(testing::HasSubstr("lib/production-util/src/CPTPAdjInterface.cpp:"),
                                            testing::HasSubstr(std::string(": void CPTPAdjInterface::") +
                                                               steps[step].report + ": Assertion `0' failed.\n")));
        }
    }
}

} // namespace
