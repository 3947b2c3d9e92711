// Result tables on the card and, in host-link mode, collected for the PC.
#include "CProductionCSV.h"
#include "CAdjustDataManager.h"
#include "CPTPAdjInterface.h"
#include "OperationTypeHook.h"
#include "PMReport.h"
#include "FileSizeLimit.h"
#include "TestRoot.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class ProductionCSVTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        CAdjustDataManager* adjust = CAdjustDataManager::GetInstance();
        adjust->Initialize();
        int serial = 777;
        ASSERT_TRUE(adjust->SetData(27, &serial, sizeof serial, true));
        std::filesystem::create_directories(root.Host("/mnt/mmc"));
    }

    TestRoot root;
};

TEST_F(ProductionCSVTest, NewTableGetsOneHeaderAndIndexedLines)
{
    CProductionCSV table;
    ASSERT_EQ(0, table.Create("result.csv", "ITEM,VALUE"));
    EXPECT_EQ(0, table.Write("%s,%s", "shutter", "OK"));
    EXPECT_EQ(0, table.write("awb,NG", false));
    EXPECT_EQ(0, table.Write("%s,%d", "abc", 5));
    table.Close();
    EXPECT_EQ("Index,CIS S/N,ITEM,VALUE\r\n0,777,shutter,OK\r\n1,777,awb,NG\r\n2,777,abc,5\r\n",
              root.ReadFile("/mnt/mmc/result.csv"));
}

TEST_F(ProductionCSVTest, IndexContinuesFromTheLastLineOfAnExistingFile)
{
    struct Case {
        const char* name;
        std::string content;
        std::string firstLine;
    } cases[] = {
        {"last index 41", "Index,CIS S/N,A\r\n40,777,w\r\n41,777,x\r\n", "42,777,next\r\n"},
        {"header only", "Index,CIS S/N,A\r\n", "0,777,next\r\n"},
        {"last line without a comma", "Index,CIS S/N,A\r\nbroken\r\n", "1,777,next\r\n"},
        {"no line end at the end", "Index,CIS S/N,A\r\n7,1,x", "8,777,next\r\n"},
        {"a single line", "9,1,x\n", "10,777,next\r\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        root.WriteFile("/mnt/mmc/old.csv", c.content);
        CProductionCSV table;
        ASSERT_EQ(0, table.Create("old.csv", "IGNORED"));
        EXPECT_EQ(0, table.write("next", false));
        table.Close();
        EXPECT_EQ(c.content + c.firstLine, root.ReadFile("/mnt/mmc/old.csv"));
    }
}

TEST_F(ProductionCSVTest, TableSurvivesARestartOfTheWriter)
{
    {
        CProductionCSV first;
        ASSERT_EQ(0, first.Create("run.csv", "STEP"));
        for (int i = 0; i < 12; ++i) ASSERT_EQ(0, first.Write("step%d", i));
        first.Close();
    }
    CProductionCSV second;
    ASSERT_EQ(0, second.Create("run.csv", "STEP"));
    EXPECT_EQ(12, second.getLineIndex());
    ASSERT_EQ(0, second.Write("again"));
    second.Close();
    const std::string content = root.ReadFile("/mnt/mmc/run.csv");
    EXPECT_EQ(0u, content.find("Index,CIS S/N,STEP\r\n0,777,step0\r\n"));
    EXPECT_NE(std::string::npos, content.find("11,777,step11\r\n12,777,again\r\n"));
    EXPECT_EQ(content.find("Index"), content.rfind("Index")) << "one header only";
}

TEST_F(ProductionCSVTest, WriteRefusesTextsOfUnusableLength)
{
    CProductionCSV table;
    ASSERT_EQ(0, table.Create("len.csv", "X"));
    EXPECT_EQ(19, table.Write("%s", std::string(4094, 'x').c_str())) << "format and string estimate 4096";
    EXPECT_EQ(0, table.Write("%s", std::string(4093, 'x').c_str()));
    EXPECT_EQ(19, table.Write(std::string(4096, 'f').c_str()));
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-zero-length"
    EXPECT_EQ(19, table.Write(""));
#pragma GCC diagnostic pop
    EXPECT_EQ(0, table.Write(nullptr));
    // Widths and length modifiers do not make the estimate take a number for a string.
    EXPECT_EQ(0, table.Write("%5d|%hd|%zu|%.2f|%s", 42, static_cast<short>(3), static_cast<size_t>(9), 1.5, "end"));
    const char* missing = std::getenv("PM_CSV_TEST_NO_SUCH_VARIABLE");
    EXPECT_EQ(0, table.Write("%lf,%s", 2.25, missing)) << "a null string counts as empty";
    const unsigned long checks = pm::AssertionCount();
    EXPECT_EQ(19, table.Write("%ld", 5L)) << "l before an integer conversion";
    EXPECT_EQ(checks + 1, pm::AssertionCount());
    // The estimate counts the format and the last string only; the formatted text must still fit.
    const unsigned long before = pm::AssertionCount();
    EXPECT_EQ(19, table.Write("%4000d%200d", 1, 2));
    EXPECT_EQ(before + 1, pm::AssertionCount());
    // Only the character after each '%' counts: "%.3s" adds no string to the
    // estimate, and the last string is the last one that walk meets.
    EXPECT_EQ(0, table.Write("%.3s", std::string(5000, 'p').c_str()));
    EXPECT_EQ(19, table.Write("%s%.3s", std::string(4090, 'q').c_str(), "abcdef"));
    table.Close();
    const std::string content = root.ReadFile("/mnt/mmc/len.csv");
    EXPECT_NE(std::string::npos, content.find("\r\n0,777," + std::string(4093, 'x') + "\r\n"));
    EXPECT_NE(std::string::npos, content.find("\r\n1,777,   42|3|9|1.50|end\r\n"));
    EXPECT_NE(std::string::npos, content.find("\r\n2,777,2.250000,(null)\r\n"));
    EXPECT_NE(std::string::npos, content.find("\r\n3,777,ppp\r\n"));
    EXPECT_EQ(std::string::npos, content.find("4,777")) << "refused lines use no index";
}

TEST_F(ProductionCSVTest, IndexThatDoesNotFitIsRefusedNotWrapped)
{
    struct Case {
        const char* lastIndex;
        int create;        // Create's answer
        const char* lines; // what two further lines add ("" when Create failed)
        int second;        // the second line's answer
    } cases[] = {
        {"2147483646", 0, "2147483647,777,a\r\n", 18}, // the last index there is; then the table is full
        {"2147483647", 18, "", 0},
        {"99999999999", 18, "", 0},
        {"00000000041", 0, "42,777,a\r\n43,777,b\r\n", 0},
        {"-2147483649", 0, "-2147483648,777,a\r\n-2147483647,777,b\r\n", 0},
        {"-9999999999", 18, "", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.lastIndex);
        const std::string old = std::string("Index,CIS S/N,A\r\n") + c.lastIndex + ",777,x\r\n";
        root.WriteFile("/mnt/mmc/big.csv", old);
        CProductionCSV table;
        ASSERT_EQ(c.create, table.Create("big.csv", "A"));
        if (c.create == 0) {
            EXPECT_EQ(0, table.write("a", false));
            EXPECT_EQ(c.second, table.write("b", false));
        } else {
            EXPECT_EQ(18, table.write("a", false)) << "no file is open";
        }
        table.Close();
        EXPECT_EQ(old + c.lines, root.ReadFile("/mnt/mmc/big.csv"));
    }
}

TEST_F(ProductionCSVTest, LineThatCannotBePositionedIsLostButUsesItsIndex)
{
    // A pipe in the table's place: it opens, but no seek on it succeeds.
    ASSERT_EQ(0, mkfifo(root.Host("/mnt/mmc/pipe.csv").c_str(), 0600));
    const int reader = open(root.Host("/mnt/mmc/pipe.csv").c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_LE(0, reader);
    CProductionCSV table;
    ASSERT_EQ(0, table.Create("pipe.csv", "X"));
    EXPECT_EQ(0, table.Write("%s", "lost"));
    char byte;
    EXPECT_EQ(-1, read(reader, &byte, 1)) << "nothing reached the pipe";
    EXPECT_NE(std::string::npos, root.ReadFile("/var/log/dlog.log").find("cannot be positioned"));

    // The same object collecting for the PC shows which index the lost line took.
    pm_test::SetOperationType(OP_TYPE_PTP);
    ASSERT_EQ(0, table.Create("host.csv", "X"));
    EXPECT_EQ(0, table.write("kept", false));
    EXPECT_EQ("host.csv\r\nIndex,CIS S/N,X\r\n1,777,kept\r\n", table.GetCSVData4PTPTrans());
    pm_test::SetOperationType(OP_TYPE_NONE);
    table.Close();
    close(reader);
}

TEST_F(ProductionCSVTest, CardThatCannotTakeTheTableGivesFileError)
{
    // No table yet.
    CProductionCSV unopened;
    EXPECT_EQ(18, unopened.write("x", false));
    EXPECT_EQ(18, unopened.Write("%s", "x"));

    // A directory in the file's place, a missing directory.
    std::filesystem::create_directories(root.Host("/mnt/mmc/dir.csv"));
    CProductionCSV table;
    EXPECT_EQ(18, table.Create("dir.csv", "X"));
    EXPECT_EQ(18, table.Create("missing/t.csv", "X"));
    EXPECT_EQ(18, table.Write("%s", "x")) << "no file open after a failed Create";

    // A full card: the header cannot be written, nor any line.
    ASSERT_EQ(0, symlink("/dev/full", root.Host("/mnt/mmc/full.csv").c_str()));
    CProductionCSV full;
    EXPECT_EQ(18, full.Create("full.csv", "X"));
    EXPECT_EQ(18, full.Write("%s", "x"));
    full.Close();

    // A card that fills up while the table is written (a file size limit stands for it):
    // the line that does not fit gets 18 and leaves no half line behind; the table stays usable.
    root.WriteFile("/mnt/mmc/fills.csv", "Index,CIS S/N,X\r\n");
    CProductionCSV fills;
    ASSERT_EQ(0, fills.Create("fills.csv", "X"));
    {
        FileSizeLimit full(40);
        EXPECT_EQ(0, fills.Write("%s", "fits"));
        EXPECT_EQ(18, fills.Write("%s", "this line does not fit"));
    }
    EXPECT_EQ(0, fills.Write("%s", "room again"));
    fills.Close();
    EXPECT_EQ("Index,CIS S/N,X\r\n0,777,fits\r\n2,777,room again\r\n", root.ReadFile("/mnt/mmc/fills.csv"));
}

TEST_F(ProductionCSVTest, DirectoryCanBeChanged)
{
    std::filesystem::create_directories(root.Host("/tmp"));
    CProductionCSV table;
    EXPECT_TRUE(table.SetFilePath("/tmp/"));
    ASSERT_EQ(0, table.Create("a.csv", "A"));
    ASSERT_EQ(0, table.Write("%d", 1));
    table.Close();
    EXPECT_EQ("Index,CIS S/N,A\r\n0,777,1\r\n", root.ReadFile("/tmp/a.csv"));
    EXPECT_FALSE(root.Exists("/mnt/mmc/a.csv"));
}

TEST_F(ProductionCSVTest, HostLinkTableIsCollectedAndHandedToTheTransferInterface)
{
    pm_test::SetOperationType(OP_TYPE_PTP);
    CPTPAdjInterface* transfer = CPTPAdjInterface::GetInstance();
    CProductionCSV table;
    EXPECT_EQ(0, table.write("lost", false)) << "a line before Create is dropped";
    EXPECT_EQ("", table.GetCSVData4PTPTrans());

    ASSERT_EQ(0, table.Create("adj_result.csv", "ITEM,VALUE"));
    EXPECT_EQ(0, table.Write("%s,%s", "shutter", "OK"));
    EXPECT_EQ(0, table.write("awb,NG", false));
    // The dropped line used up index 0.
    const std::string expected = "adj_result.csv\r\nIndex,CIS S/N,ITEM,VALUE\r\n1,777,shutter,OK\r\n2,777,awb,NG\r\n";
    EXPECT_EQ(expected, table.GetCSVData4PTPTrans());
    EXPECT_FALSE(root.Exists("/mnt/mmc/adj_result.csv"));

    ASSERT_EQ(static_cast<uint32_t>(PTP_TRANSFER_NONE), transfer->GetTransferDataType());
    table.Close();
    ASSERT_EQ(static_cast<uint32_t>(PTP_TRANSFER_DATA), transfer->GetTransferDataType());
    EXPECT_EQ(expected, std::string(reinterpret_cast<char*>(transfer->GetData()), transfer->GetDataSize()));
    EXPECT_EQ(expected, table.GetCSVData4PTPTrans()) << "the text stays in the object";
    transfer->Dispatch();

    // The index goes on across Create calls of the same object.
    ASSERT_EQ(0, table.Create("second.csv", "X"));
    EXPECT_EQ(0, table.write("y", false));
    EXPECT_EQ("second.csv\r\nIndex,CIS S/N,X\r\n3,777,y\r\n", table.GetCSVData4PTPTrans());
    pm_test::SetOperationType(OP_TYPE_NONE);
}

TEST_F(ProductionCSVTest, MissingSerialNumberIsAFailedCheckAndNoLine)
{
    CAdjustDataManager::GetInstance()->Finalize();
    CProductionCSV table;
    ASSERT_EQ(0, table.Create("noserial.csv", "X"));
    const unsigned long checks = pm::AssertionCount();
    EXPECT_EQ(18, table.write("x", false));
    EXPECT_EQ(checks + 1, pm::AssertionCount());
    table.Close();
    EXPECT_EQ("Index,CIS S/N,X\r\n", root.ReadFile("/mnt/mmc/noserial.csv"));
}

} // namespace
