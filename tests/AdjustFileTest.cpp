// The file-backed block store: mount, Read/Write bounds, Insert/Remove against a model, a full disk.
#include "CAdjustFile.h"
#include "FileSizeLimit.h"
#include "TestRoot.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>

namespace {

const std::string kDir = "/mnt/ubi1/pref/", kBacking = kDir + "adj_test.dat";

std::string RandomBytes(size_t size, unsigned seed)
{
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (char& c : bytes) c = static_cast<char>(random());
    return bytes;
}

class AdjustFileTest : public ::testing::Test, protected CAdjustFile {
protected:
    void SetUp() override { std::filesystem::create_directories(root.Host(kDir)); }
    /// The backing file holds content and no temporary is left beside it.
    bool HoldsOnly(const std::string& content) const
    {
        return root.ReadFile(kBacking) == content && !root.Exists(kDir + "adj_front.dat") && !root.Exists(kDir + "adj_back.dat");
    }
    TestRoot root;
};

TEST_F(AdjustFileTest, MountCountsWholeRecordsOfAnExistingNonEmptyFileAndRefusesBadNames)
{
    // size -1: no file; items: the count of the last successful mount
    const struct { long size; bool mounted; unsigned long items; } cases[] = {{280, true, 2}, {-1, false, 2}, {0, false, 2}, {139, true, 0}, {140, true, 1}};
    for (const auto& c : cases) {
        std::filesystem::remove(root.Host(kBacking));
        if (c.size >= 0) root.WriteFile(kBacking, std::string(static_cast<size_t>(c.size), 'a'));
        EXPECT_EQ(c.mounted, Mount("adj_test.dat")) << "size " << c.size;
        EXPECT_EQ(c.items, GetItemNum()) << "size " << c.size;
    }
    CAdjustFile unmounted;
    EXPECT_EQ(-1, unmounted.Insert(0, 1)) << "no path before Mount";
    EXPECT_FALSE(unmounted.Mount("adj_front.dat")) << "the temporaries are not stores";
    EXPECT_FALSE(unmounted.Mount(std::string(241, 'n').c_str()));
    EXPECT_FALSE(unmounted.Mount(nullptr));
    EXPECT_EQ(-1, unmounted.Remove(0, 1)) << "a refused name leaves no path behind";
    root.WriteFile(kDir + std::string(240, 'n'), std::string(281, 'x'));
    EXPECT_TRUE(unmounted.Mount(std::string(240, 'n').c_str())) << "240 characters fit the path";
    EXPECT_EQ(2u, unmounted.GetItemNum());
}

TEST_F(AdjustFileTest, ReadAndWriteHonourTheEndOfTheFile)
{
    EXPECT_FALSE(Mount("adj_test.dat"));
    EXPECT_EQ(-1, Remove(0, 4)) << "Remove needs the file";
    EXPECT_EQ(0, Insert(0, 3)) << "Insert creates it";
    EXPECT_TRUE(HoldsOnly(std::string(3, '\0')));
    char bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    ASSERT_TRUE(Write(0, bytes, 4));
    ASSERT_TRUE(Write(10, bytes + 4, 4)) << "Write past the end grows the file";
    EXPECT_EQ(std::string("\x01\x02\x03\x04\0\0\0\0\0\0\x05\x06\x07\x08", 14), root.ReadFile(kBacking));
    char out[14] = {};
    EXPECT_TRUE(Read(10, out, 4));
    EXPECT_EQ(std::string("\x05\x06\x07\x08", 4), std::string(out, 4));
    EXPECT_TRUE(Read(0, out, 14)) << "up to the last byte";
    EXPECT_FALSE(Read(1, out, 14)) << "one byte past the end";
    EXPECT_TRUE(Read(14, out, 0)) << "nothing at the end";
    EXPECT_FALSE(Read(0, nullptr, 1));
    EXPECT_FALSE(Write(0, nullptr, 1));
    std::filesystem::remove(root.Host(kBacking));
    ASSERT_TRUE(Write(0, bytes, 4)) << "Write creates the file";
    EXPECT_EQ(std::string("\x01\x02\x03\x04", 4), root.ReadFile(kBacking));
}

TEST_F(AdjustFileTest, InsertAndRemoveRebuildTheFileAsTheModelSays)
{
    const std::string original = RandomBytes(2400 * 1024 + 333, 1); // many chunks of the copy
    const unsigned long n = original.size();
    const struct { const char* name; bool insert; unsigned long offset, size; int result; std::string expected; } cases[] = {
        {"insert at 0", true, 0, 140, 0, std::string(140, '\0') + original},
        {"insert in the middle", true, 1500, 1025, 0, original.substr(0, 1500) + std::string(1025, '\0') + original.substr(1500)},
        {"insert at the end", true, n, 7, 0, original + std::string(7, '\0')},
        {"insert past the end", true, n + 1, 5, -3, original},
        {"remove at 0", false, 0, 140, 0, original.substr(140)},
        {"remove in the middle", false, 1024, 1024, 0, original.substr(0, 1024) + original.substr(2048)},
        {"remove passing the end cuts", false, 2000, n, 0, original.substr(0, 2000)},
        {"remove everything", false, 0, n, 0, ""},
        {"remove past the end", false, n + 1, 1, -3, original},
    };
    for (const auto& c : cases) {
        root.WriteFile(kBacking, original);
        ASSERT_TRUE(Mount("adj_test.dat"));
        EXPECT_EQ(c.result, c.insert ? Insert(c.offset, c.size) : Remove(c.offset, c.size)) << c.name;
        EXPECT_TRUE(HoldsOnly(c.expected)) << c.name;
    }
}

TEST_F(AdjustFileTest, FullDiskKeepsTheOldFileOrTheNewContentInTheTemporaries)
{
    const std::string original = RandomBytes(200 * 1024, 4);
    root.WriteFile(kBacking, original);
    ASSERT_TRUE(Mount("adj_test.dat"));
    FileSizeLimit full(100 * 1024);
    EXPECT_EQ(-3, Insert(150 * 1024, 140)) << "the front part does not fit";
    EXPECT_EQ(-3, Remove(0, 140)) << "the back part does not fit";
    EXPECT_EQ(-3, Insert(10, 120 * 1024)) << "the run of zeros does not fit";
    EXPECT_TRUE(HoldsOnly(original));
    root.WriteFile(kBacking, original.substr(0, 90 * 1024));
    EXPECT_EQ(-3, Insert(0, 20 * 1024)) << "the grown file does not fit";
    EXPECT_TRUE(std::string(20 * 1024, '\0') + original.substr(0, 90 * 1024) ==
                root.ReadFile(kDir + "adj_front.dat") + root.ReadFile(kDir + "adj_back.dat"))
        << "the temporaries hold the whole new content";
}

} // namespace
