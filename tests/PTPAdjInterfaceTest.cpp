// The transfer interface: one answer per request, only over the host link, misuse reported like assert().
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

TEST(PTPAdjInterfaceTest, HoldsOneAnswerUntilDispatchOnlyOverTheHostLinkAndMisuseChangesNothing)
{
    const char *respond = "SetRespond(long unsigned int, long unsigned int, long unsigned int)", *data = "SetData(unsigned char*, int)",
               *file = "SetFile(const char*)";
    const std::string full = "ffffffff,2147483648,7 ", longest(127, 'p');
    unsigned char text[] = "abc";
    // Each step: operation type, call, state after it ("" unchanged), method whose check fails ("" none).
    const struct { int type; std::function<void()> call; std::string state; const char* report; } steps[] = {
        {OP_TYPE_NONE, [&] { transfer->SetRespond(0x10000002, 1, 0); }, "0 10000000,0,0 - ", ""},
        {OP_TYPE_SCRIPT, [&] { transfer->SetData(nullptr, 0); }, "", ""}, // not even checked outside the link
        {OP_TYPE_SCRIPT, [&] { transfer->SetFile("/mnt/mmc/a.csv"); }, "", ""},
        {OP_TYPE_PTP, [&] { transfer->SetRespond(0xFFFFFFFFUL, 0x80000000UL, 7); }, "1 " + full + "- ", ""},
        {OP_TYPE_PTP, [&] { transfer->SetRespond(0x10000003, 1, 0); }, "", respond},
        {OP_TYPE_PTP, [&] { transfer->SetFile("/mnt/mmc/x"); }, "", file},
        {OP_TYPE_PTP, [&] { transfer->Dispatch(); }, "0 " + full + "- ", ""}, // the response stays, to be sent again
        {OP_TYPE_PTP, [&] { transfer->SetData(text, 0); }, "", data},
        {OP_TYPE_PTP, [&] { transfer->SetData(nullptr, 3); }, "", data},
        {OP_TYPE_PTP,
         [&] {
             transfer->SetData(text, 1);
             text[0] = 'Z'; // the interface holds a copy
         },
         "2 " + full + "a ", ""},
        {OP_TYPE_PTP, [&] { transfer->Dispatch(); }, "0 " + full + "- ", ""},
        {OP_TYPE_PTP, [&] { transfer->SetFile(nullptr); }, "", file},
        {OP_TYPE_PTP, [&] { transfer->SetFile(std::string(128, 'q').c_str()); }, "", file},
        {OP_TYPE_PTP, [&] { transfer->SetFile(longest.c_str()); }, "3 " + full + "- " + longest, ""},
        {OP_TYPE_PTP, [&] { transfer->SetData(text, 3); }, "", data},
        {OP_TYPE_PTP, [&] { transfer->Dispatch(); }, "0 " + full + "- " + longest, ""}, // the name stays
        {OP_TYPE_PTP, [&] { transfer->SetFile("/mnt/mmc/x"); }, "3 " + full + "- /mnt/mmc/x", ""},
    };
    for (size_t step = 0; step < std::size(steps); ++step) {
        SCOPED_TRACE("step " + std::to_string(step + 1));
        pm_test::SetOperationType(steps[step].type);
        const std::string before = State();
        testing::internal::CaptureStderr();
        steps[step].call();
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(steps[step].state.empty() ? before : steps[step].state, State());
        const std::string report = std::string(": void CPTPAdjInterface::") + steps[step].report + ": Assertion `0' failed.\n";
        EXPECT_THAT(err, *steps[step].report == '\0' ? testing::Matcher<std::string>(testing::IsEmpty())
                                                      : testing::AllOf(testing::HasSubstr("lib/production-util/src/CPTPAdjInterface.cpp:"),
                                                                       testing::HasSubstr(report)));
    }
}

} // namespace
