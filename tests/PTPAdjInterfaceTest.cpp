// The transfer interface: one answer per request, only over the host link,
// misuse reported like a failed assert() without ending the process.
#include "CPTPAdjInterface.h"
#include "OperationTypeHook.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

namespace {

constexpr const char* kRespondName =
    "void CPTPAdjInterface::SetRespond(long unsigned int, long unsigned int, long unsigned int)";
constexpr const char* kDataName = "void CPTPAdjInterface::SetData(unsigned char*, int)";
constexpr const char* kFileName = "void CPTPAdjInterface::SetFile(const char*)";

class PTPAdjInterfaceTest : public ::testing::Test {
protected:
    void SetUp() override { pm_test::SetOperationType(OP_TYPE_PTP); }
    void TearDown() override
    {
        transfer->Dispatch();
        pm_test::SetOperationType(OP_TYPE_NONE);
    }

    /// Runs a call and returns what it wrote to standard error.
    static std::string StderrOf(const std::function<void()>& call)
    {
        testing::internal::CaptureStderr();
        call();
        return testing::internal::GetCapturedStderr();
    }

    /// The report of assert(0) in the given method.
    static void ExpectAssertReport(const std::string& err, const char* method)
    {
        EXPECT_NE(std::string::npos, err.find("lib/production-util/src/CPTPAdjInterface.cpp:")) << err;
        EXPECT_NE(std::string::npos, err.find(std::string(": ") + method + ": Assertion `0' failed.\n")) << err;
    }

    void ExpectRespond(unsigned int code, unsigned int v2, unsigned int v3)
    {
        unsigned int a = 1, b = 1, c = 1;
        transfer->GetRespond(a, b, c);
        EXPECT_EQ(code, a);
        EXPECT_EQ(v2, b);
        EXPECT_EQ(v3, c);
    }

    CPTPAdjInterface* transfer = CPTPAdjInterface::GetInstance();
};

TEST_F(PTPAdjInterfaceTest, SettersDoNothingOutsideTheHostLink)
{
    unsigned char bytes[4] = {1, 2, 3, 4};
    for (int type : {OP_TYPE_NONE, OP_TYPE_SCRIPT}) {
        pm_test::SetOperationType(type);
        const std::string err = StderrOf([&] {
            transfer->SetRespond(0x10000002, 1, 0);
            transfer->SetData(bytes, sizeof bytes);
            transfer->SetData(nullptr, 0); // misuse is not even checked here
            transfer->SetFile("/mnt/mmc/a.csv");
        });
        EXPECT_EQ("", err) << "operation type " << type;
        EXPECT_EQ(0u, transfer->GetTransferDataType()) << "operation type " << type;
        EXPECT_EQ(nullptr, transfer->GetData()) << "operation type " << type;
        EXPECT_STREQ("", transfer->GetFileName()) << "operation type " << type;
        ExpectRespond(0x10000000, 0, 0);
    }
}

TEST_F(PTPAdjInterfaceTest, ResponseSurvivesDispatchAndIsResentWhenNothingIsPending)
{
    ExpectRespond(0x10000000, 0, 0);
    transfer->SetRespond(0x10000002, 1, 0);
    EXPECT_EQ(1u, transfer->GetTransferDataType());
    ExpectRespond(0x10000002, 1, 0);
    transfer->Dispatch();
    EXPECT_EQ(0u, transfer->GetTransferDataType());
    ExpectRespond(0x10000002, 1, 0);
    transfer->Dispatch(); // nothing pending: harmless
    EXPECT_EQ(0u, transfer->GetTransferDataType());
    transfer->SetRespond(0xFFFFFFFFUL, 0x80000000UL, 7);
    ExpectRespond(0xFFFFFFFFu, 0x80000000u, 7);
}

TEST_F(PTPAdjInterfaceTest, DataIsAPrivateCopyReleasedByDispatch)
{
    unsigned char bytes[10];
    for (int i = 0; i < 10; ++i) bytes[i] = static_cast<unsigned char>('a' + i);
    transfer->SetData(bytes, 10);
    bytes[0] = 'Z';
    ASSERT_NE(nullptr, transfer->GetData());
    EXPECT_NE(static_cast<void*>(bytes), static_cast<void*>(transfer->GetData()));
    EXPECT_EQ(0, std::memcmp("abcdefghij", transfer->GetData(), 10));
    EXPECT_EQ(10, transfer->GetDataSize());
    EXPECT_EQ(2u, transfer->GetTransferDataType());
    transfer->Dispatch();
    EXPECT_EQ(nullptr, transfer->GetData());
    EXPECT_EQ(0u, transfer->GetTransferDataType());
}

TEST_F(PTPAdjInterfaceTest, FileNameIsCopiedAndOverlongPathsAreRefused)
{
    transfer->SetFile("/mnt/mmc/result/strobe.csv");
    EXPECT_EQ(3u, transfer->GetTransferDataType());
    EXPECT_STREQ("/mnt/mmc/result/strobe.csv", transfer->GetFileName());
    transfer->Dispatch();
    EXPECT_STREQ("/mnt/mmc/result/strobe.csv", transfer->GetFileName()) << "the name stays after Dispatch";

    const std::string longest(127, 'p');
    transfer->SetFile(longest.c_str());
    EXPECT_EQ(longest, transfer->GetFileName());
    transfer->Dispatch();

    const std::string tooLong(128, 'q');
    const std::string err = StderrOf([&] { transfer->SetFile(tooLong.c_str()); });
    ExpectAssertReport(err, kFileName);
    EXPECT_EQ(0u, transfer->GetTransferDataType());
    EXPECT_EQ(longest, transfer->GetFileName()) << "a refused path leaves the field alone";
}

TEST_F(PTPAdjInterfaceTest, MisuseIsReportedWithTheMethodNameAndChangesNothing)
{
    unsigned char bytes[3] = {1, 2, 3};
    struct Case {
        const char* name;
        std::function<void()> pending; // puts something pending first (or nothing)
        std::function<void()> misuse;
        const char* method;
        unsigned int typeAfter;
    };
    const Case cases[] = {
        {"data of size 0", [] {}, [&] { transfer->SetData(bytes, 0); }, kDataName, 0},
        {"data of negative size", [] {}, [&] { transfer->SetData(bytes, -5); }, kDataName, 0},
        {"null data", [] {}, [&] { transfer->SetData(nullptr, 3); }, kDataName, 0},
        {"null path", [] {}, [&] { transfer->SetFile(nullptr); }, kFileName, 0},
        {"file after respond", [&] { transfer->SetRespond(0x10000000, 0, 0); },
         [&] { transfer->SetFile("/mnt/mmc/x"); }, kFileName, 1},
        {"respond after data", [&] { transfer->SetData(bytes, 3); },
         [&] { transfer->SetRespond(0x10000002, 1, 0); }, kRespondName, 2},
        {"data after file", [&] { transfer->SetFile("/mnt/mmc/y"); }, [&] { transfer->SetData(bytes, 3); },
         kDataName, 3},
        {"second respond", [&] { transfer->SetRespond(0x10000000, 0, 0); },
         [&] { transfer->SetRespond(0x10000002, 1, 0); }, kRespondName, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        c.pending();
        const unsigned char* dataBefore = transfer->GetData();
        const std::string fileBefore = transfer->GetFileName();
        unsigned int r1, r2, r3;
        transfer->GetRespond(r1, r2, r3);

        const std::string err = StderrOf(c.misuse);
        ExpectAssertReport(err, c.method);
        EXPECT_EQ(c.typeAfter, transfer->GetTransferDataType());
        EXPECT_EQ(dataBefore, transfer->GetData());
        EXPECT_EQ(fileBefore, transfer->GetFileName());
        ExpectRespond(r1, r2, r3);
        transfer->Dispatch();
    }
}

} // namespace
