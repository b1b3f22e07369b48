#include "rastkit/tiles/tile_memory.h"

#include "support/in_threads.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <sys/mman.h>
#include <vector>

namespace {

using namespace QUtils;
using namespace testing_support;

constexpr std::size_t kibi = 1024;

bool isZero(const std::uint8_t* memory, std::size_t bytes)
{
    return std::all_of(memory, memory + bytes, [](std::uint8_t byte) { return byte == 0; });
}

/// How many pages of a tile are in memory.
std::size_t residentPages(std::uint8_t* tile, std::size_t bytes)
{
    std::vector<unsigned char> pages(bytes / 4096);
    EXPECT_EQ(mincore(tile, bytes, pages.data()), 0);
    return std::size_t(
        std::count_if(pages.begin(), pages.end(), [](unsigned char page) { return page & 1; }));
}

TEST(TileMemory, TilesAreZerosAlsoWhereOthersHaveBeen)
{
    TileMemory memory;
    for (const std::size_t bytes :
        { std::size_t(32), 4 * kibi - 1, 4 * kibi, 20 * kibi + 4, 1024 * kibi, 3000 * kibi })
        for (int i = 0; i < 3; ++i) {
            std::uint8_t* const tile = memory.allocate(bytes);
            ASSERT_TRUE(tile) << bytes;
            EXPECT_TRUE(isZero(tile, bytes)) << bytes;
            std::memset(tile, 0xFF, bytes);
            memory.free(tile, bytes);
        }
}

TEST(TileMemory, TilesDoNotOverlap)
{
    TileMemory memory;
    constexpr std::size_t bytes = 300 * kibi; // Thirteen in a block.
    std::vector<std::uint8_t*> tiles;
    for (std::uint8_t i = 0; i < 40; ++i) {
        tiles.push_back(memory.allocate(bytes));
        ASSERT_TRUE(tiles.back());
        std::memset(tiles.back(), i, bytes);
    }
    for (std::uint8_t i = 0; i < 40; ++i) {
        EXPECT_EQ(std::count(tiles[i], tiles[i] + bytes, i), std::ptrdiff_t(bytes));
        memory.free(tiles[i], bytes);
    }
}

TEST(TileMemory, PagesOfFreedTilesGoBackToTheSystemButForAFew)
{
    TileMemory memory;
    for (const std::size_t bytes : { 64 * kibi, 40 * kibi }) {
        std::vector<std::uint8_t*> tiles;
        for (int i = 0; i < 100; ++i) {
            tiles.push_back(memory.allocate(bytes));
            ASSERT_TRUE(tiles.back());
            std::memset(tiles.back(), 1, bytes);
            EXPECT_EQ(residentPages(tiles.back(), bytes), bytes / 4096);
        }
        for (std::uint8_t* const tile : tiles)
            memory.free(tile, bytes);
        std::size_t resident = 0;
        for (std::uint8_t* const tile : tiles)
            resident += residentPages(tile, bytes);
        EXPECT_GT(resident, 0u);
        EXPECT_LE(resident * 4096, TileMemory::mostWarmBytes);
    }
}

TEST(TileMemory, LargeTilesKeepNoPages)
{
    TileMemory memory;
    constexpr std::size_t bytes = 1024 * kibi;
    std::uint8_t* const tile = memory.allocate(bytes);
    ASSERT_TRUE(tile);
    std::memset(tile, 1, bytes);
    memory.free(tile, bytes);
    EXPECT_EQ(residentPages(tile, bytes), 0u);
}

TEST(TileMemory, WhatATileTakesIsAtLeastItsPages)
{
    EXPECT_GE(TileMemory::bytesOf(100), 100u);
    EXPECT_LT(TileMemory::bytesOf(100), 200u);
    EXPECT_GE(TileMemory::bytesOf(4097), 8192u);
    EXPECT_LT(TileMemory::bytesOf(32 * kibi), 33 * kibi);
}

TEST(TileMemory, ManyThreadsTakeAndFreeTilesOfAllSizes)
{
    TileMemory memory;
    inThreads(4, [&](int number) {
        std::vector<std::uint8_t*> tiles(8);
        for (std::size_t i = 0; i < 400; ++i) {
            const std::size_t bytes = (i % 8 + 1) * 3 * kibi;
            std::uint8_t*& tile = tiles[i % 8];
            if (tile) {
                EXPECT_EQ(tile[0], std::uint8_t(number));
                EXPECT_EQ(tile[bytes - 1], std::uint8_t(number));
                memory.free(tile, bytes);
            }
            tile = memory.allocate(bytes);
            ASSERT_TRUE(tile);
            EXPECT_EQ(tile[bytes / 2], 0);
            std::memset(tile, number, bytes);
        }
        for (std::size_t i = 0; i < 8; ++i)
            memory.free(tiles[i], (i + 1) * 3 * kibi);
    });
}

} // namespace
