// The sorted tag table, its cache file and the lookups by tag.

#include "support/test_support.h"
#include "tags/tag_table.h"

using cm::catalogue::sConfigItemList;

namespace {

using cmtest::lines;

std::string join(const std::vector<std::string>& ls) {
    std::string s;
    for (const auto& l : ls) s += l + "\n";
    return s;
}

class Tags : public cmtest::LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        ASSERT_EQ(CM_init(1), 0);
        cm::log::dwLogFilter = 7;  // informational messages too
        cache = cm::paths::tagCacheFile();
    }
    // The cache as a fresh mapping writes it.
    std::vector<std::string> soundCache() {
        EXPECT_EQ(CM_TagMapping(), 1);
        return lines(cmtest::readFile(cache));
    }
    std::string cache;
};

TEST_F(Tags, MappingSortsEveryTagAndWritesTheCache) {
    auto expected = cmtest::allVars();
    ASSERT_EQ(expected.size(), static_cast<size_t>(CM_NUM_TAGS));
    std::sort(expected.begin(), expected.end(), [](auto& a, auto& b) { return a.tag < b.tag; });

    const auto cached = soundCache();
    EXPECT_TRUE(sink.contains("There are 3088 total CM variables in the system."));
    ASSERT_EQ(cached.size(), 3089u);
    EXPECT_EQ(cached[0], "Unknown");
    for (int i = 0; i < CM_NUM_TAGS; ++i) {
        const auto& row = cm::tags::Tag_FileIndex_Id[i];
        ASSERT_EQ(cm::tags::rowTag(row), expected[i].tag) << i;
        EXPECT_EQ(cached[i + 1], std::to_string(expected[i].file) + " " + std::to_string(expected[i].rel));
    }
    EXPECT_NE(access(cm::paths::tagCacheTempFile(), F_OK), 0) << "the temporary file was renamed";

    // "" and a tag after the last one are not found (the restore round trip
    // finds every other).
    for (const std::string missing : {"", "\x7f\x7f", "A", "UNIT_NAMEX"}) {
        int32_t id = 77;
        sink.clear();
        EXPECT_EQ(CM_FindMatchingCMvarTag(missing.c_str(), &id), -1);
        EXPECT_EQ(id, 77);
        EXPECT_EQ(sink.lines().size(), 1u);
        EXPECT_EQ(sink.count("<<CM_FindMatchingCMvarTag>> Tag " + missing + " not found\n", 6), 1);
    }
}

// Each defect of the cache leads to a rebuild with its message, never to a
// failed load; the rebuilt cache is the sound one.
TEST_F(Tags, EveryCacheDefectIsRebuilt) {
    const auto sound = soundCache();
    auto withLine = [&](int lineNo, const std::string& text) {
        auto c = sound;
        c[lineNo - 1] = text;
        return join(c);
    };
    auto firstLines = [&](size_t n) { return join({sound.begin(), sound.begin() + n}); };
    const std::string p = cache;
    const struct {
        const char* name;
        std::string content;  // nothing written when "-"
        std::string message;
    } cases[] = {
        {"missing", "-", "CM_Load_CMTagSortedList:  Unable to open file " + p + " to read, so creating it.\n"},
        {"older version", withLine(1, "3.399.0.0"),
         "CM_Load_CMTagSortedList:  File " + p + " has wrong software version number, so re-creating it.\n"},
        {"3087 entries", firstLines(3088),
         "CM_Load_CMTagSortedList:  Processed 3087 CM var entries from file " + p + " but expected 3088, so re-creating it.\n"},
        {"3089 entries", join(sound) + "0 0\n",
         "CM_Load_CMTagSortedList:  File " + p + " has too many lines (expected 3088), so re-creating it.\n"},
        {"file index 10", withLine(40, "10 0"),
         "CM_Load_CMTagSortedList:  Bad data (10, 0) from file " + p + " line 40, so re-creating it.\n"},
        {"junk", withLine(7, "x y"),
         "CM_Load_CMTagSortedList:  Bad data or error while reading file " + p + " line 7, so re-creating it, errno="},
        {"binary", std::string("Unknown\n\0\xff\x01 5\n", 13), "Bad data or error while reading file"},
        {"rows out of order", [&] { auto c = sound; std::swap(c[5], c[6]); return join(c); }(),
         "CM_Load_CMTagSortedList:  File " + p + " has entries out of order, so re-creating it.\n"},
        {"a row twice", withLine(7, sound[5]), "has entries out of order"},
    };
    __atomic_store_n(&g_iConsoleLog, 1, __ATOMIC_RELAXED);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        unlink(cache.c_str());
        if (c.content != "-") cmtest::writeFile(cache, c.content);
        sink.clear();
        EXPECT_EQ(CM_Load_CMTagSortedList(), 1);
        EXPECT_TRUE(sink.contains(c.message)) << (sink.lines().empty() ? "" : sink.lines()[0].text);
        EXPECT_EQ(lines(cmtest::readFile(cache)), sound);
    }
}

TEST_F(Tags, ACacheThatCannotBeWrittenLeavesLookupsWorking) {
    // The temporary path is a directory: it cannot be opened.
    ASSERT_EQ(mkdir(cm::paths::tagCacheTempFile(), 0755), 0);
    EXPECT_EQ(CM_TagMapping(), 0);
    EXPECT_TRUE(sink.contains("CM_TagMapping:" + std::string(cm::log::modulePath(cm::log::Module::FileAccess)) +
                              ":  Unable to open file " + cm::paths::tagCacheTempFile() + " for write operation\n"));
    // The table sorted in memory serves the lookups all the same.
    int32_t id = -1;
    EXPECT_EQ(CM_FindMatchingCMvarTag("UNIT_NAME", &id), 0);
    EXPECT_EQ(id, UNIT_NAME);
    EXPECT_EQ(cm::tags::bSortedListLoaded, 0);
}

TEST_F(Tags, LinearSearch) {
    __atomic_store_n(&g_iConsoleLog, 1, __ATOMIC_RELAXED);
    int32_t f = 5, r = 5;
    EXPECT_EQ(CM_FindFileIndexRelativeIDCMTag("", &f, &r), -1);
    EXPECT_EQ(f, 5);
    EXPECT_TRUE(sink.contains("CM_FindFileIndexRelativeIDCMTag:  Failed: Supplied Tag is empty\n"));
    EXPECT_EQ(CM_FindFileIndexRelativeIDCMTag("UNIT_NAM", &f, &r), -1);
    EXPECT_EQ(f, -1);
    EXPECT_EQ(r, -1);
    EXPECT_TRUE(sink.contains("CM_FindFileIndexRelativeIDCMTag:  Did not find match for Tag UNIT_NAM\n"));
    EXPECT_EQ(CM_FindFileIndexRelativeIDCMTag("UNIT_NAME", &f, &r), 0);
    EXPECT_EQ(sConfigItemList[f].iFirstVarID + r, UNIT_NAME);
    EXPECT_TRUE(sink.contains("CM_FindFileIndexRelativeIDCMTag:  Found match for Tag UNIT_NAME: FileIndex=9 (rel=" +
                              std::to_string(r) + ") in file '" + cm::storage::pathOf(9) + "'\n"));
}

}  // namespace
