#pragma once

#include "support/ignore_leaks.h"
#include "support/temp_file.h"

#include <cstdlib>
#include <locale.h>

namespace testing_support {

/// A locale whose decimal point is a comma, also where none is installed: glibc takes one from a file.
class CommaLocale {
public:
    static constexpr char name[] = "comma";

    CommaLocale()
    {
        const Bytes magic { 0x14, 0x11, 0x03, 0x20 };
        Bytes file = magic;
        append(file, { 6, 0x20, 0x22, 0x23, 0x24, 0x28, 0x2C }); // Six values, and where each is.
        const char values[] = ",\0\0\0,\0\0\0\0\0\0\0ANSI_X3.4-1968"; // The points in bytes, and in words.
        file.insert(file.end(), values, values + sizeof values);
        std::filesystem::create_directory(m_dir.path() / name);
        writeFile(m_dir / "comma/LC_NUMERIC", file);
        setenv("LOCPATH", m_dir.path().c_str(), 1);
        const IgnoreLeaks ignore; // glibc forgets what it makes of LOCPATH.
        m_locale = newlocale(LC_NUMERIC_MASK, name, locale_t(nullptr));
    }
    CommaLocale(const CommaLocale&) = delete;
    CommaLocale& operator=(const CommaLocale&) = delete;
    ~CommaLocale()
    {
        if (m_locale)
            freelocale(m_locale);
        unsetenv("LOCPATH");
    }

    /// Null where the C library takes no such file.
    locale_t get() const { return m_locale; }

private:
    static void append(Bytes& file, std::initializer_list<int> words)
    {
        for (const int word : words)
            for (int shift = 0; shift < 32; shift += 8)
                file.push_back(std::uint8_t(word >> shift));
    }

    TempDir m_dir;
    locale_t m_locale;
};

} // namespace testing_support
