#include "ControllerTestKit.h"
#include "FileSizeLimit.h"
#include "OperationTypeHook.h"

#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class ProductionCSVTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        CAdjustDataManager::GetInstance()->Initialize();
        int serial = 777;
        ASSERT_TRUE(CAdjustDataManager::GetInstance()->SetData(27, &serial, sizeof serial, true));
        std::filesystem::create_directories(root.Host("/mnt/mmc"));
    }

    TestRoot root;
    CProductionCSV table;
};

TEST_F(ProductionCSVTest, IndexGoesOnFromTheLastLineUnwrappedAndTextsOfUnusableLengthAreRefusedInAnyDirectory)
{
    const struct { const char* name; std::string content; int create; int second; std::string added; } cases[] = {
        {"last index 41", "Index,CIS S/N,A\r\n40,777,w\r\n41,777,x\r\n", 0, 0, "42,777,a\r\n43,777,b\r\n"},
        {"header only", "Index,CIS S/N,A\r\n", 0, 0, "0,777,a\r\n1,777,b\r\n"},
        {"last line without a comma", "Index,CIS S/N,A\r\nbroken\r\n", 0, 0, "1,777,a\r\n2,777,b\r\n"},
        {"a single line, no CR", "9,1,x\n", 0, 0, "10,777,a\r\n11,777,b\r\n"},
        {"the last index there is", "A\r\n2147483646,777,x\r\n", 0, 18, "2147483647,777,a\r\n"},
        {"full table", "A\r\n2147483647,777,x\r\n", 18, 18, ""}, {"leading zeros", "A\r\n00000000041,777,x", 0, 0, "42,777,a\r\n43,777,b\r\n"},
        {"lowest index", "A\r\n-2147483649,777,x\r\n", 0, 0, "-2147483648,777,a\r\n-2147483647,777,b\r\n"},
        {"below the lowest", "A\r\n-9999999999,777,x\r\n", 18, 18, ""},
        {"last line longer than a read of the tail", "A\r\n" + std::string(30000, '9') + "\r\n6," + std::string(20000, 'x') + "\r\n", 0, 0,
         "7,777,a\r\n8,777,b\r\n"},
        {"no line break in a long table", std::string(20000, '5') + ",x", 0, 0, "0,777,a\r\n1,777,b\r\n"}, // index too long
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        root.WriteFile("/mnt/mmc/old.csv", c.content);
        CProductionCSV table;
        ASSERT_EQ(c.create, table.Create("old.csv", "IGNORED"));
        EXPECT_EQ(c.create, table.write("a", false));
        EXPECT_EQ(c.second, table.write("b", false));
        table.Close();
        EXPECT_EQ(c.content + c.added, root.ReadFile("/mnt/mmc/old.csv"));
    }

    std::filesystem::create_directories(root.Host("/tmp"));
    EXPECT_TRUE(table.SetFilePath("/tmp/"));
    ASSERT_EQ(0, table.Create("len.csv", "X"));
    EXPECT_EQ(19, table.Write("%s", std::string(4094, 'x').c_str())) << "format and string estimate 4096";
    EXPECT_EQ(0, table.Write("%s", std::string(4093, 'x').c_str()));
    const std::string noText;
    EXPECT_EQ(19, table.Write(noText.c_str(), 0)) << "an empty format";
    EXPECT_EQ(0, table.Write(nullptr));
    EXPECT_EQ(0, table.Write("%5d|%hd|%zu|%.2f|%s", 42, static_cast<short>(3), static_cast<size_t>(9), 1.5, "end")) << "widths";
    const char* missing = std::getenv("PM_CSV_TEST_NO_SUCH_VARIABLE");
    EXPECT_EQ(0, table.Write("%lf,%s", 2.25, missing)) << "a null string counts as empty";
    const unsigned long checks = pm::AssertionCount();
    EXPECT_EQ(19, table.Write("%ld", 5L)) << "l before an integer conversion";
    // The estimate counts the format and the last string only; the formatted text must still fit.
    EXPECT_EQ(19, table.Write("%4000d%200d", 1, 2));
    EXPECT_EQ(checks + 2, pm::AssertionCount()) << "both are failed checks";
    // Only the character after '%' counts: "%.3s" adds no string, and the last string is the last that walk meets.
    EXPECT_EQ(0, table.Write("%.3s", std::string(5000, 'p').c_str()));
    EXPECT_EQ(0, table.Write(std::string(4095, 'y').c_str())) << "a line of 4095 characters is whole";
    EXPECT_EQ(19, table.Write("%s%.3s", std::string(4090, 'q').c_str(), "abcdef"));
    EXPECT_EQ("Index,CIS S/N,X\r\n0,777," + std::string(4093, 'x') + "\r\n1,777,   42|3|9|1.50|end\r\n" +
                  "2,777,2.250000,(null)\r\n3,777,ppp\r\n4,777," + std::string(4095, 'y') + "\r\n",
              root.ReadFile("/tmp/len.csv")) << "refused lines use no index";
    EXPECT_EQ(5, table.getLineIndex());
    EXPECT_EQ(0, table.Write("%-.0f%s", 1.0, std::string(4094, 'f').c_str())) << "flags are no string";
}

TEST_F(ProductionCSVTest, CardThatCannotTakeALineGivesFileErrorLeavesNoHalfLineAndLostOrCollectedLinesUseAnIndex)
{
    std::filesystem::create_directories(root.Host("/mnt/mmc/dir.csv"));
    EXPECT_EQ(18, table.Create("dir.csv", "X"));
    EXPECT_EQ(18, table.Write("%s", "x")) << "no file open after a failed Create";
    ASSERT_EQ(0, symlink("/dev/full", root.Host("/mnt/mmc/full.csv").c_str()));
    EXPECT_EQ(18, table.Create("full.csv", "X")) << "the header cannot be written";
    root.WriteFile("/mnt/mmc/fills.csv", "Index,CIS S/N,X\r\n");
    ASSERT_EQ(0, table.Create("fills.csv", "X"));
    {
        FileSizeLimit full(40);
        EXPECT_EQ(0, table.Write("%s", "fits"));
        EXPECT_EQ(18, table.Write("%s", "this line does not fit"));
    }
    EXPECT_EQ(0, table.Write("%s", "room again"));
    CAdjustDataManager::GetInstance()->Finalize();
    const unsigned long checks = pm::AssertionCount();
    EXPECT_EQ(18, table.write("x", false)) << "no serial number";
    EXPECT_EQ(checks + 1, pm::AssertionCount());
    EXPECT_EQ("Index,CIS S/N,X\r\n0,777,fits\r\n2,777,room again\r\n", root.ReadFile("/mnt/mmc/fills.csv"));
    CAdjustDataManager::GetInstance()->Initialize();
    ASSERT_EQ(0, mkfifo(root.Host("/mnt/mmc/pipe.csv").c_str(), 0600)) << "opens, but cannot seek";
    const int reader = open(root.Host("/mnt/mmc/pipe.csv").c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_LE(0, reader);
    ASSERT_EQ(0, table.Create("pipe.csv", "X"));
    EXPECT_EQ(0, table.Write("%s", "lost"));
    char byte;
    EXPECT_EQ(-1, read(reader, &byte, 1)) << "nothing reached the pipe";
    EXPECT_NE(std::string::npos, root.ReadFile("/var/log/dlog.log").find("cannot be positioned"));
    close(reader);
    // Collecting for the PC: a line before Create is dropped but uses its index, Close hands the text over.
    pm_test::SetOperationType(OP_TYPE_PTP);
    CPTPAdjInterface* transfer = CPTPAdjInterface::GetInstance();
    EXPECT_EQ(0, table.write("dropped", false));
    EXPECT_EQ("", table.GetCSVData4PTPTrans());
    ASSERT_EQ(0, table.Create("adj_result.csv", "ITEM,VALUE"));
    EXPECT_EQ(0, table.Write("%s,%s", "shutter", "OK"));
    table.Close();
    const std::string expected = "adj_result.csv\r\nIndex,CIS S/N,ITEM,VALUE\r\n2,777,shutter,OK\r\n";
    ASSERT_EQ(static_cast<uint32_t>(PTP_TRANSFER_DATA), transfer->GetTransferDataType());
    EXPECT_EQ(expected, std::string(reinterpret_cast<char*>(transfer->GetData()), transfer->GetDataSize()));
    EXPECT_EQ(expected, table.GetCSVData4PTPTrans()) << "the text stays in the object";
    EXPECT_FALSE(root.Exists("/mnt/mmc/adj_result.csv"));
}

} // namespace
