#include "qutils/core/error_code.h"

#include "qutils/core/paths.h"

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

namespace QUtils {

/// What an ErrorCode points to. A record never changes once it is made, so a chain has no cycles.
class ErrorMsg {
public:
    static constexpr int largestImmortalCode = 16;
    static constexpr std::size_t textBytes = 1024; // Terminator included.

    /// A record of one block of memory that holds copies of both texts and takes over the reference to
    /// `chained`. Null when memory is refused; the reference stays the caller's then.
    static ErrorMsg* make(const char* function, int code, const char* message, ErrorMsg* chained) noexcept;
    /// The record that carries `code` alone and takes no memory; -1 in place of a code that has none.
    static ErrorMsg* immortal(int code) noexcept;
    static bool hasImmortal(int code) noexcept
    {
        return code >= -largestImmortalCode && code <= largestImmortalCode;
    }

    /// An immortal record. Public for the table of them only.
    constexpr explicit ErrorMsg(int code) noexcept : m_code(code), m_immortal(true) { }

    int code() const noexcept { return m_code; }
    const char* function() const noexcept { return m_function; }
    const char* message() const noexcept { return m_message; }
    ErrorMsg* chained() const noexcept { return m_chained; }

    void addReference() noexcept
    {
        if (!m_immortal)
            m_references.fetch_add(1, std::memory_order_relaxed);
    }
    /// Drops one reference and destroys the record when it was the last.
    void release() noexcept
    {
        if (dropReference())
            destroy(this);
    }

private:
    ErrorMsg(int code, const char* function, const char* message, ErrorMsg* chained) noexcept
        : m_code(code), m_function(function), m_message(message), m_chained(chained)
    {
    }

    /// True when the last reference was dropped.
    bool dropReference() noexcept
    {
        return !m_immortal && m_references.fetch_sub(1, std::memory_order_acq_rel) == 1;
    }
    static void destroy(ErrorMsg* record) noexcept;

    std::atomic<std::size_t> m_references { 1 };
    const int m_code;
    const bool m_immortal = false;
    const char* const m_function = "";
    const char* const m_message = "";
    ErrorMsg* m_chained = nullptr;
};

namespace {

// Indexed by code + largestImmortalCode; the entry of code 0 is never used.
template <typename Codes> struct ImmortalRecords;
template <int... index> struct ImmortalRecords<std::integer_sequence<int, index...>> {
    ErrorMsg records[sizeof...(index)] = { ErrorMsg(index - ErrorMsg::largestImmortalCode)... };
};

constinit ImmortalRecords<std::make_integer_sequence<int, 2 * ErrorMsg::largestImmortalCode + 1>>
    immortalRecords;

} // namespace

ErrorMsg* ErrorMsg::immortal(int code) noexcept
{
    return &immortalRecords.records[largestImmortalCode + (hasImmortal(code) ? code : -1)];
}

ErrorMsg* ErrorMsg::make(const char* function, int code, const char* message, ErrorMsg* chained) noexcept
{
    const std::size_t functionBytes = std::strlen(function) + 1, messageBytes = std::strlen(message) + 1;
    void* const memory = ::operator new(sizeof(ErrorMsg) + functionBytes + messageBytes, std::nothrow);
    if (!memory)
        return nullptr;
    char* const functionCopy = static_cast<char*>(memory) + sizeof(ErrorMsg);
    char* const messageCopy = functionCopy + functionBytes;
    std::memcpy(functionCopy, function, functionBytes);
    std::memcpy(messageCopy, message, messageBytes);
    return new (memory) ErrorMsg(code, functionCopy, messageCopy, chained);
}

/// Releases the chained records first, the deepest before all others, then the record itself. The links of
/// the records that die are turned round on the way down and lead back up, because a chain may be longer
/// than any stack is deep.
void ErrorMsg::destroy(ErrorMsg* record) noexcept
{
    ErrorMsg* above = nullptr;
    for (ErrorMsg* dying = record; dying;) {
        ErrorMsg* const below = std::exchange(dying->m_chained, above);
        above = dying;
        dying = below && below->dropReference() ? below : nullptr;
    }
    while (above) {
        ErrorMsg* const dead = std::exchange(above, above->m_chained);
        dead->~ErrorMsg();
        ::operator delete(dead);
    }
}

ErrorCode::ErrorCode(const char* function, int code, const char* format, ...) noexcept
{
    std::va_list arguments;
    va_start(arguments, format);
    setMessage(function, code, format, arguments);
    va_end(arguments);
}

ErrorCode ErrorCode::withCause(const ErrorCode& error, const ErrorCode& cause) noexcept
{
    if (!error.m_message || !cause.m_message)
        return error;
    ErrorMsg* const chained
        = ErrorMsg::make(error.function(), error.code(), error.message(), cause.m_message);
    if (!chained)
        return error;
    cause.m_message->addReference();
    ErrorCode result;
    result.adopt(chained);
    return result;
}

ErrorCode::ErrorCode(const ErrorCode& other) noexcept : m_message(other.m_message)
{
    if (m_message)
        m_message->addReference();
}

ErrorCode::ErrorCode(ErrorCode&& other) noexcept : m_message(std::exchange(other.m_message, nullptr)) { }

ErrorCode& ErrorCode::operator=(const ErrorCode& other) noexcept
{
    ErrorCode copy(other);
    std::swap(m_message, copy.m_message);
    return *this;
}

ErrorCode& ErrorCode::operator=(ErrorCode&& other) noexcept
{
    ErrorCode taken(std::move(other));
    std::swap(m_message, taken.m_message);
    return *this;
}

ErrorCode::~ErrorCode()
{
    adopt(nullptr);
}

int ErrorCode::code() const noexcept
{
    return m_message ? m_message->code() : 0;
}

const char* ErrorCode::function() const noexcept
{
    return m_message ? m_message->function() : "";
}

const char* ErrorCode::message() const noexcept
{
    return m_message ? m_message->message() : "";
}

ErrorCode ErrorCode::cause() const noexcept
{
    ErrorCode result;
    if (m_message && m_message->chained()) {
        m_message->chained()->addReference();
        result.adopt(m_message->chained());
    }
    return result;
}

void ErrorCode::getErrorString(char* buffer, int size) const noexcept
{
    copyBounded(message(), buffer, size);
}

void ErrorCode::setCode(int code) noexcept
{
    ErrorMsg* record = nullptr;
    if (code != 0 && !ErrorMsg::hasImmortal(code))
        record = ErrorMsg::make("", code, "", nullptr);
    adopt(record || code == 0 ? record : ErrorMsg::immortal(code));
}

void ErrorCode::setMessage(
    const char* function, int code, const char* format, std::va_list arguments) noexcept
{
    char text[ErrorMsg::textBytes];
    if (!format || std::vsnprintf(text, sizeof text, format, arguments) < 0)
        text[0] = '\0';

    const bool codeAlone = text[0] == '\0' && (!function || function[0] == '\0');
    ErrorMsg* record = nullptr;
    if (code != 0 && !codeAlone)
        record = ErrorMsg::make(function ? function : "", code, text, nullptr);
    if (record)
        adopt(record);
    else
        setCode(code);
}

void ErrorCode::adopt(ErrorMsg* message) noexcept
{
    if (ErrorMsg* const old = std::exchange(m_message, message))
        old->release();
}

} // namespace QUtils
