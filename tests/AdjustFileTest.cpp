// The file-backed block store: mount, bounds of Read and Write, Insert and Remove
// against a model, the chunked copy, and a full disk in the middle of a rebuild.
#include "CAdjustFile.h"
#include "FileSizeLimit.h"
#include "TestRoot.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>

#include <cstdio>
#include <filesystem>
#include <random>
#include <string>

namespace {

const std::string kBacking = "/mnt/ubi1/pref/adj_test.dat";
const std::string kFront = "/mnt/ubi1/pref/adj_front.dat";
const std::string kBack = "/mnt/ubi1/pref/adj_back.dat";

std::string randomBytes(size_t size, unsigned seed)
{
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (char& c : bytes) c = static_cast<char>(random());
    return bytes;
}

/// Exposes the stream helpers.
class TestableFile : public CAdjustFile {
public:
    using CAdjustFile::copy;
    using CAdjustFile::getFileSize;
    using CAdjustFile::seek;
};

class AdjustFileTest : public ::testing::Test {
protected:
    void SetUp() override { std::filesystem::create_directories(root.Host("/mnt/ubi1/pref")); }

    void ExpectNoTemporaries(const std::string& context)
    {
        EXPECT_FALSE(root.Exists(kFront)) << context;
        EXPECT_FALSE(root.Exists(kBack)) << context;
    }

    TestRoot root;
    TestableFile store;
};

TEST_F(AdjustFileTest, MountCountsWholeRecordsOfAnExistingNonEmptyFile)
{
    struct Case {
        const char* name;
        long size; // -1: no file
        bool mounted;
        unsigned long items; // after the call (count of the last successful mount)
    } cases[] = {
        {"280 bytes", 280, true, 2},  {"missing file", -1, false, 2}, {"empty file", 0, false, 2},
        {"139 bytes", 139, true, 0},  {"281 bytes", 281, true, 2},    {"one record", 140, true, 1},
    };
    for (const Case& c : cases) {
        std::filesystem::remove(root.Host(kBacking));
        if (c.size >= 0) root.WriteFile(kBacking, std::string(static_cast<size_t>(c.size), 'a'));
        EXPECT_EQ(c.mounted, store.Mount("adj_test.dat")) << "case " << c.name;
        EXPECT_EQ(c.items, store.GetItemNum()) << "case " << c.name;
    }
    EXPECT_TRUE(store.crcCheck());

    root.WriteFile(kBacking, "abc");
    CAdjustFile unmounted;
    char buffer[3];
    EXPECT_FALSE(unmounted.Read(0, buffer, 3)) << "no path before Mount";
    EXPECT_EQ(-1, unmounted.Insert(0, 1));
    EXPECT_FALSE(unmounted.Mount("adj_front.dat")) << "the temporaries are not stores";
    EXPECT_FALSE(unmounted.Mount(std::string(241, 'n').c_str()));
    EXPECT_FALSE(unmounted.Mount(nullptr));
    EXPECT_EQ(-1, unmounted.Remove(0, 1)) << "a refused name leaves no path behind";
    const std::string longest(240, 'n');
    root.WriteFile("/mnt/ubi1/pref/" + longest, std::string(280, 'x'));
    EXPECT_TRUE(unmounted.Mount(longest.c_str())) << "240 characters fit the path";
    EXPECT_EQ(2u, unmounted.GetItemNum());
}

TEST_F(AdjustFileTest, ReadAndWriteHonourTheEndOfTheFile)
{
    EXPECT_FALSE(store.Mount("adj_test.dat"));
    char bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    ASSERT_TRUE(store.Write(0, bytes, 4)) << "Write creates the file";
    EXPECT_EQ(std::string("\x01\x02\x03\x04", 4), root.ReadFile(kBacking));
    ASSERT_TRUE(store.Write(10, bytes + 4, 4)) << "Write past the end grows the file";
    EXPECT_EQ(std::string("\x01\x02\x03\x04\0\0\0\0\0\0\x05\x06\x07\x08", 14), root.ReadFile(kBacking));

    char out[14] = {};
    EXPECT_TRUE(store.Read(10, out, 4));
    EXPECT_EQ(std::string("\x05\x06\x07\x08", 4), std::string(out, 4));
    EXPECT_TRUE(store.Read(0, out, 14)) << "up to the last byte";
    EXPECT_FALSE(store.Read(1, out, 14)) << "one byte past the end";
    EXPECT_FALSE(store.Read(100, out, 1));
    EXPECT_TRUE(store.Read(14, out, 0)) << "nothing at the end";
    EXPECT_FALSE(store.Read(0, nullptr, 1));
    EXPECT_FALSE(store.Write(0, nullptr, 1));
    EXPECT_EQ(14u, root.ReadFile(kBacking).size());
}

TEST_F(AdjustFileTest, InsertAndRemoveRebuildTheFileAsTheModelSays)
{
    const std::string original = randomBytes(3000, 1);
    struct Case {
        const char* name;
        bool insert;
        unsigned long offset;
        unsigned long size;
        int result;
        std::string expected;
    } cases[] = {
        {"insert at 0", true, 0, 140, 0, std::string(140, '\0') + original},
        {"insert in the middle", true, 1500, 1025, 0,
         original.substr(0, 1500) + std::string(1025, '\0') + original.substr(1500)},
        {"insert at the end", true, 3000, 7, 0, original + std::string(7, '\0')},
        {"insert of nothing", true, 1234, 0, 0, original},
        {"insert past the end", true, 3001, 5, -3, original},
        {"remove at 0", false, 0, 140, 0, original.substr(140)},
        {"remove in the middle", false, 1024, 1024, 0, original.substr(0, 1024) + original.substr(2048)},
        {"remove the last bytes", false, 2860, 140, 0, original.substr(0, 2860)},
        {"remove passing the end cuts", false, 2000, 5000, 0, original.substr(0, 2000)},
        {"remove of nothing", false, 17, 0, 0, original},
        {"remove everything", false, 0, 3000, 0, ""},
        {"remove past the end", false, 3001, 1, -3, original},
    };
    for (const Case& c : cases) {
        root.WriteFile(kBacking, original);
        ASSERT_TRUE(store.Mount("adj_test.dat"));
        const int result = c.insert ? store.Insert(c.offset, c.size) : store.Remove(c.offset, c.size);
        EXPECT_EQ(c.result, result) << "case " << c.name;
        EXPECT_TRUE(c.expected == root.ReadFile(kBacking)) << "case " << c.name << ": wrong content";
        ExpectNoTemporaries(std::string("case ") + c.name);
    }
}

TEST_F(AdjustFileTest, InsertOnAMissingFileCreatesItAndRemoveNeedsIt)
{
    store.Mount("adj_test.dat");
    EXPECT_EQ(-1, store.Remove(0, 4));
    EXPECT_FALSE(root.Exists(kBacking));
    EXPECT_EQ(0, store.Insert(0, 300));
    EXPECT_EQ(std::string(300, '\0'), root.ReadFile(kBacking));
    ExpectNoTemporaries("after insert");
}

TEST_F(AdjustFileTest, InsertAndRemoveMoveALongTail)
{
    const std::string original = randomBytes(2400 * 1024 + 333, 2);
    root.WriteFile(kBacking, original);
    ASSERT_TRUE(store.Mount("adj_test.dat"));
    ASSERT_EQ(0, store.Insert(140, 140));
    const std::string grown = root.ReadFile(kBacking);
    EXPECT_TRUE(original.substr(0, 140) + std::string(140, '\0') + original.substr(140) == grown);
    ASSERT_EQ(0, store.Remove(140, 140));
    EXPECT_TRUE(original == root.ReadFile(kBacking));
    ExpectNoTemporaries("after the long tail");
}

TEST_F(AdjustFileTest, CopyChecksItsRangeAndStreams)
{
    root.WriteFile("/mnt/ubi1/pref/source.dat", randomBytes(3000, 3));
    FILE* source = std::fopen(root.Host("/mnt/ubi1/pref/source.dat").c_str(), "rb");
    FILE* destination = std::fopen(root.Host("/mnt/ubi1/pref/destination.dat").c_str(), "w+b");
    FILE* readOnly = std::fopen(root.Host("/mnt/ubi1/pref/source.dat").c_str(), "rb");
    FILE* writeOnly = std::fopen(root.Host("/mnt/ubi1/pref/write-only.dat").c_str(), "wb");
    ASSERT_TRUE(source && destination && readOnly && writeOnly);
    std::fputs("0123456789", writeOnly);
    std::fflush(writeOnly);

    struct Case {
        const char* name;
        FILE* from;
        FILE* to;
        unsigned long start;
        unsigned long size;
        int result;
    } cases[] = {
        {"all of it", source, destination, 0, 3000, 0},
        {"nothing", source, destination, 3000, 0, 0},
        {"one byte past the source", source, destination, 1, 3000, -4},
        {"source size unknown", nullptr, destination, 0, 0, -4},
        {"wrapping range", source, destination, 10, ~0UL, -4},
        {"no destination", source, nullptr, 0, 10, -2},
        {"destination not writable", source, readOnly, 0, 10, -1},
        {"source not readable", writeOnly, destination, 0, 10, -3},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.result, store.copy(c.from, c.to, c.start, 5, c.size)) << "case " << c.name;
    }
    std::fclose(source);
    std::fclose(destination);
    std::fclose(readOnly);
    std::fclose(writeOnly);
    const std::string copied = root.ReadFile("/mnt/ubi1/pref/destination.dat");
    EXPECT_TRUE(std::string(5, '\0') + root.ReadFile("/mnt/ubi1/pref/source.dat") == copied);
    EXPECT_EQ(-1, store.getFileSize(nullptr));
    EXPECT_FALSE(store.seek(nullptr, 0, SEEK_SET));
}

TEST_F(AdjustFileTest, FullDiskWhileStagingKeepsTheOldFile)
{
    const std::string original = randomBytes(200 * 1024, 4);
    root.WriteFile(kBacking, original);
    ASSERT_TRUE(store.Mount("adj_test.dat"));
    {
        FileSizeLimit full(100 * 1024);
        EXPECT_EQ(-3, store.Insert(150 * 1024, 140)) << "the front part does not fit";
        EXPECT_EQ(-3, store.Remove(0, 140)) << "the back part does not fit";
        EXPECT_EQ(-3, store.Insert(10, 120 * 1024)) << "the run of zeros does not fit";
    }
    EXPECT_TRUE(original == root.ReadFile(kBacking));
    ExpectNoTemporaries("after the full disk");
}

TEST_F(AdjustFileTest, FullDiskWhileWritingBackKeepsTheNewContentInTheTemporaries)
{
    const std::string original = randomBytes(90 * 1024, 5);
    root.WriteFile(kBacking, original);
    ASSERT_TRUE(store.Mount("adj_test.dat"));
    {
        FileSizeLimit full(100 * 1024);
        EXPECT_EQ(-3, store.Insert(0, 20 * 1024)) << "the grown file does not fit";
    }
    EXPECT_TRUE(std::string(20 * 1024, '\0') + original == root.ReadFile(kFront) + root.ReadFile(kBack))
        << "the temporaries hold the whole new content";
}

} // namespace
