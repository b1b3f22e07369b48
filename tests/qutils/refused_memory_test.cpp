// What the utility library does when memory is refused, and how much of it it takes.

#include "qutils/core/char_string.h"
#include "qutils/core/error_code.h"
#include "qutils/core/exception_msg.h"
#include "qutils/core/paths.h"
#include "qutils/core/ptr_array.h"
#include "qutils/core/table.h"
#include "qutils/plugin/plugin.h"
#include "support/refuse_memory.h"
#include "support/temp_file.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <memory>
#include <string>

namespace {

using namespace testing_support;
using QUtils::ErrorCode;
using QUtils::PtrArray;
using QUtils::Table;

class CodeOnly : public ErrorCode {
public:
    explicit CodeOnly(int code) noexcept { setCode(code); }
};

TEST(RefusedMemory, TextIsEmpty)
{
    const int refusals = refuseEachInTurn([] { return CharString("a text"); },
        [](const CharString& text, int position) {
            EXPECT_STREQ(text.c_str(), position < 0 ? "a text" : "");
        });
    EXPECT_EQ(refusals, 1); // Header and characters are one block.
}

TEST(RefusedMemory, CopiesOfTextsTakeNone)
{
    const CharString text("a text");
    const MemoryLog log;
    const CharString copy(text);
    CharString assigned;
    assigned = copy;
    EXPECT_EQ(log.takenCount(), 0u);
    EXPECT_TRUE(assigned.sharesStorageWith(text));
}

TEST(RefusedMemory, TextIsReleasedOnceByItsLastOwner)
{
    const MemoryLog log;
    {
        CharString text("a text");
        const CharString copy(text), other(copy);
        text = CharString();
        EXPECT_EQ(log.releasedCount(), 0u);
    }
    ASSERT_EQ(log.takenCount(), 1u);
    ASSERT_EQ(log.releasedCount(), 1u);
    EXPECT_EQ(log.released(0), log.taken(0));
}

TEST(RefusedMemory, ErrorKeepsItsCode)
{
    for (const int code : { 1, 7, 16, -1, -16 }) {
        refuseEachInTurn([code] { return ErrorCode("function", code, "text %d", 1); },
            [code](const ErrorCode& error, int position) {
                EXPECT_EQ(error.code(), code);
                EXPECT_STREQ(error.function(), position < 0 ? "function" : "");
                EXPECT_STREQ(error.message(), position < 0 ? "text 1" : "");
            });
    }
}

TEST(RefusedMemory, ErrorWithAnUnusualCodeStaysAnError)
{
    for (const int code : { 17, -17, 4711, INT_MIN }) {
        ErrorCode error, codeOnly, textRefused;
        {
            const RefuseMemory refuse;
            error = ErrorCode("function", code, "text");
            codeOnly = CodeOnly(code);
        }
        {
            const RefuseMemory refuse({ .refused = 1 });
            textRefused = ErrorCode("function", code, "text");
        }
        EXPECT_EQ(error.code(), -1);
        EXPECT_STREQ(error.message(), "");
        EXPECT_EQ(codeOnly.code(), -1);
        EXPECT_EQ(textRefused.code(), code);
        EXPECT_STREQ(textRefused.message(), "");
    }
}

TEST(RefusedMemory, CodeAloneTakesNone)
{
    const MemoryLog log;
    for (int code = -16; code <= 16; ++code) {
        EXPECT_EQ(CodeOnly(code).code(), code);
        EXPECT_EQ(ErrorCode(nullptr, code, "%s", "").code(), code);
        EXPECT_EQ(ErrorCode("", code, "%s", "").code(), code);
    }
    EXPECT_EQ(log.takenCount(), 0u);
}

TEST(RefusedMemory, ErrorIsOneBlock)
{
    const MemoryLog log;
    const ErrorCode error("function", 1, "text");
    const ErrorCode copy(error);
    EXPECT_EQ(log.takenCount(), 1u);
}

TEST(RefusedMemory, CauseIsDroppedAndTheErrorStays)
{
    const ErrorCode error("f", 2, "error"), cause("g", 1, "cause");
    refuseEachInTurn([&] { return ErrorCode::withCause(error, cause); },
        [&](const ErrorCode& chained, int position) {
            EXPECT_EQ(chained.code(), 2);
            EXPECT_STREQ(chained.message(), "error");
            EXPECT_EQ(chained.cause().code(), position < 0 ? 1 : 0);
        });
}

TEST(RefusedMemory, ChainedErrorsAreReleasedTheDeepestFirst)
{
    const MemoryLog log;
    {
        ErrorCode chain("root", 1, "0");
        for (int i = 1; i < 4; ++i)
            chain = ErrorCode::withCause(CodeOnly(2), chain);
        ASSERT_EQ(log.takenCount(), 4u);
        EXPECT_EQ(log.releasedCount(), 0u);
    }
    ASSERT_EQ(log.releasedCount(), 4u);
    for (std::size_t i = 0; i < 4; ++i)
        EXPECT_EQ(log.released(i), log.taken(i)) << i; // The root was taken first.
}

TEST(RefusedMemory, SharedCauseIsReleasedWithItsLastError)
{
    const MemoryLog log;
    auto root = std::make_unique<ErrorCode>("root", 1, "root");
    ErrorCode first = ErrorCode::withCause(CodeOnly(2), *root);
    ErrorCode second = ErrorCode::withCause(CodeOnly(3), *root);
    root.reset();
    ASSERT_EQ(log.takenCount(), 4u); // The unique_ptr's object is the first.
    ASSERT_EQ(log.releasedCount(), 1u);
    first = ErrorCode();
    ASSERT_EQ(log.releasedCount(), 2u);
    EXPECT_EQ(log.released(1), log.taken(2));
    second = ErrorCode();
    ASSERT_EQ(log.releasedCount(), 4u);
    EXPECT_EQ(log.released(2), log.taken(1));
    EXPECT_EQ(log.released(3), log.taken(3));
}

TEST(RefusedMemory, TableStaysAsItWas)
{
    Table<int, 2> table;
    table.add(1);
    table.add(2);
    {
        const RefuseMemory refuse;
        table.add(3);
    }
    EXPECT_EQ(table.count(), 2);
    EXPECT_EQ(table.capacity(), 2);
    EXPECT_EQ(table[1], 2);
    bool reserved = true;
    {
        const RefuseMemory refuse;
        reserved = table.reserve(3);
    }
    EXPECT_FALSE(reserved);
    EXPECT_EQ(table.capacity(), 2);
    table.add(3);
    EXPECT_EQ(table[2], 3);
}

TEST(RefusedMemory, CopyOfATableIsEmpty)
{
    Table<int, 2> table;
    table.add(1);
    refuseEachInTurn([&] { return Table<int, 2>(table); },
        [](const Table<int, 2>& copy, int position) { EXPECT_EQ(copy.count(), position < 0 ? 1 : 0); });
}

TEST(RefusedMemory, PixelArrayIsNull)
{
    const int refusals = refuseEachInTurn(
        [] {
            PtrArray<float> array;
            const bool allocated = array.allocMem(100) != nullptr;
            EXPECT_EQ(allocated, static_cast<bool>(array));
            return allocated;
        },
        [](bool allocated, int position) { EXPECT_EQ(allocated, position < 0); });
    EXPECT_EQ(refusals, 2); // The counter and the elements.
}

TEST(RefusedMemory, PixelArrayLeaksNothing)
{
    const MemoryLog log;
    for (std::size_t granted = 0; granted < 3; ++granted) {
        const RefuseMemory refuse({ .granted = granted });
        PtrArray<int> array;
        array.allocMem(10);
        const PtrArray<int> copy(array);
    }
    EXPECT_EQ(log.takenCount(), 3u);
    EXPECT_EQ(log.releasedCount(), log.takenCount());
}

TEST(RefusedMemory, ExceptionTextTakesNone)
{
    std::string text;
    text.reserve(64);
    {
        const RefuseMemory refuse;
        text = ExceptionMsg("row %d", 7).what();
    }
    EXPECT_EQ(text, "row 7");
}

class PlainInterface : public PluginInterface {
public:
    unsigned long getInterfaceID() override { return 1; }
    PluginBase* getPlugin() override { return nullptr; }
};

TEST(RefusedMemory, InterfaceThatIsNotRegisteredStaysItsCallers)
{
    PluginBase plugin;
    const auto interface = std::make_unique<PlainInterface>();
    {
        const RefuseMemory refuse;
        plugin.addInterface(interface.get(), 1);
    }
    EXPECT_EQ(plugin.newInterface(1), nullptr);
    plugin.addInterface(interface.get(), 0);
    EXPECT_EQ(plugin.newInterface(1), interface.get());
}

TEST(RefusedMemory, NamesTakeNone)
{
    const TempDir dir;
    const std::string folder = dir / "a/b", longName(100000, 'n');
    std::string out(200000, '\0');
    bool made = false, exists = false;
    std::size_t requests = 0;
    {
        const RefuseMemory refuse;
        made = QUtils::uniMakeDir(folder.c_str());
        exists = QUtils::uniPathOrFileExists(folder.c_str());
        QUtils::makeValidName(longName.c_str(), out.data());
        QUtils::appendFileName(longName.c_str(), ".z", out.data(), int(out.size()), false);
        QUtils::appendFrameNumber(longName.c_str(), 1000, 7, out.data(), int(out.size()), true);
        requests = refuse.requests();
    }
    EXPECT_TRUE(made);
    EXPECT_TRUE(exists);
    EXPECT_EQ(out.c_str(), longName + "." + std::string(999, '0') + "7");
    EXPECT_EQ(requests, 0u);
}

TEST(RefusedMemory, FileIsNotOpenedAndErrnoSaysWhy)
{
    if (!canRefuseMalloc())
        GTEST_SKIP() << "malloc belongs to a sanitizer here";
    FILE* file = nullptr;
    int reason = 0;
    {
        const RefuseMemory refuse;
        file = qutils_fopen("/dev/null", "rb");
        reason = errno;
    }
    EXPECT_EQ(file, nullptr);
    EXPECT_EQ(reason, ENOMEM);
}

} // namespace
