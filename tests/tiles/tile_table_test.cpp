#include "rastkit/tiles/cache_core.h"

#include <gtest/gtest.h>

namespace {

using namespace QUtils;

class TileTableTest : public testing::Test {
protected:
    TileTableTest() { EXPECT_TRUE(m_table.grow() && m_table.addChunk(m_cache)); }

    TileEntry& insert(const TileKey& key)
    {
        TileEntry& entry = *m_table.takeFree();
        entry.state = TileEntry::valid;
        m_table.insert(entry, key);
        return entry;
    }

    CacheCore m_cache { TileCacheSettings() };
    TileTable m_table;
};

TEST_F(TileTableTest, CountsOtherEntriesOfOneKey)
{
    const TileKey key = TileKey::of(7, 3, 4, 1);
    TileEntry& first = insert(key);
    insert(TileKey::of(7, 4, 3, 1));
    EXPECT_EQ(m_table.twins(first), 0u);
    TileEntry& second = insert(key);
    EXPECT_EQ(m_table.twins(first), 1u);
    EXPECT_EQ(m_table.twins(second), 1u);
    m_table.remove(second);
    EXPECT_EQ(m_table.twins(first), 0u);
}

TEST_F(TileTableTest, EntriesAreFoundByTheirKeysHoweverManyBucketsThereAre)
{
    for (int size = 0; size < 6; ++size) {
        while (m_table.isCrowded() || !m_table.hasFree())
            ASSERT_TRUE(m_table.isCrowded() ? m_table.grow() : m_table.addChunk(m_cache));
        for (int i = 0; i < 32 && m_table.hasFree(); ++i)
            insert(TileKey::of(1, size, i, 0));
    }
    for (int size = 0; size < 6; ++size) {
        const TileKey key = TileKey::of(1, size, 5, 0);
        TileEntry* stray = nullptr;
        TileEntry* const entry = m_table.pin(key, stray);
        ASSERT_TRUE(entry);
        EXPECT_TRUE(entry->has(key));
        EXPECT_EQ(m_table.find(key), entry);
        EXPECT_EQ(stray, nullptr);
        EXPECT_FALSE(entry->unpin());
    }
}

// What is being moved away is pinned by mistake, and let go again.
TEST_F(TileTableTest, AnEntryThatIsNotValidIsNotHad)
{
    const TileKey key = TileKey::of(7, 0, 0, 0);
    TileEntry& entry = insert(key);
    TileEntry* stray = nullptr;
    entry.state = TileEntry::loading;
    EXPECT_EQ(m_table.pin(key, stray), nullptr);
    EXPECT_EQ(stray, nullptr);
    EXPECT_EQ(entry.state, TileEntry::loading);
    entry.state = TileEntry::doomed;
    EXPECT_EQ(m_table.pin(key, stray), nullptr);
    EXPECT_EQ(stray, &entry);
}

} // namespace
