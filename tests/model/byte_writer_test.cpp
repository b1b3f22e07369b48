#include "rastkit/model/byte_writer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using QUtils::ByteWriter;
using testing::ElementsAre;

TEST(ByteWriter, StoresEachWidthInTheOrderItsNameTells)
{
    std::uint8_t bytes[15] = {};
    ByteWriter out(bytes, sizeof bytes);
    out.u8(0x11);
    out.u16le(0x2233);
    out.u16be(0x4455);
    out.u32le(0x66778899);
    out.u32be(0xAABBCCDD);
    out.zeros(2);
    EXPECT_TRUE(out.ok());
    EXPECT_TRUE(out.atEnd());
    EXPECT_THAT(bytes,
        ElementsAre(0x11, 0x33, 0x22, 0x44, 0x55, 0x99, 0x88, 0x77, 0x66, 0xAA, 0xBB, 0xCC, 0xDD, 0, 0));
}

TEST(ByteWriter, ZerosReplaceWhatWasThere)
{
    std::uint8_t bytes[3] = { 1, 2, 3 };
    ByteWriter out(bytes, sizeof bytes);
    out.zeros(2);
    EXPECT_THAT(bytes, ElementsAre(0, 0, 3));
    EXPECT_FALSE(out.atEnd());
}

TEST(ByteWriter, WhatDoesNotFitIsDroppedAndRemembered)
{
    std::uint8_t bytes[4] = { 9, 9, 9, 9 };
    ByteWriter out(bytes, 3);
    out.u16le(0x0102);
    out.u16le(0x0304);
    EXPECT_FALSE(out.ok());
    out.u8(5);
    out.zeros(1);
    out.u32be(6);
    EXPECT_FALSE(out.ok());
    EXPECT_THAT(bytes, ElementsAre(2, 1, 9, 9));
}

} // namespace
