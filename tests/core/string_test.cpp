#include "core/string.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>

#include "core/object.h"

namespace {

std::string text(const CString& value) { return value.c_str(); }

}  // namespace

TEST(String, ValueSemanticsAndMovedFromStrings) {
    CString a("abc");
    CString b = a;
    b = "longer text";
    EXPECT_EQ(text(a), "abc");
    b = a;
    EXPECT_EQ(text(b), "abc");
    b.assign("a longer text than before");
    EXPECT_EQ(text(b), "a longer text than before");

    CString moved = std::move(a);
    EXPECT_EQ(a.length(), -1);  // NOLINT(bugprone-use-after-move): the moved-from state is the point
    EXPECT_TRUE(a.isEmpty());
    CString copy = a;
    EXPECT_EQ(copy.length(), 0);
    EXPECT_EQ(text(moved), "abc");

    EXPECT_EQ(CString(nullptr).length(), 0);
    EXPECT_EQ(text(CString("abcdef", 3)), "abc");
    const char unterminated[3] = {'x', 'y', 'z'};
    EXPECT_EQ(text(CString(unterminated, 3)), "xyz");
    EXPECT_EQ(text(CString("ab\0cd", 5)), "ab");
    EXPECT_EQ(text(concat("", "x") + concat("y", "")), "xy");

    // An object keeps a real name even when handed a moved-from string.
    CObject object;
    object.setName(std::move(moved));
    EXPECT_EQ(text(object.getName()), "abc");
    object.setName(std::move(moved));
    EXPECT_EQ(object.name.length(), 0);
}

TEST(String, MidClampsToTheText) {
    const CString s("abcdef");
    EXPECT_EQ(text(s.mid(2, 3)), "cde");
    EXPECT_EQ(text(s.mid(2)), "cdef");
    EXPECT_EQ(text(s.mid(4, 10)), "ef");
    EXPECT_EQ(text(s.mid(6, 1)), "");
    EXPECT_EQ(text(s.mid(9)), "");
}

TEST(String, CompareIsByteWiseOnUnsignedBytes) {
    EXPECT_LT(CString("B").compare("a"), 0);
    EXPECT_GT(CString("\xE9").compare("z"), 0);
    EXPECT_LT(CString("ab").compare("abc"), 0);
    EXPECT_EQ(CString("abc"), CString("abc"));
}

TEST(String, NumbersToText) {
    EXPECT_EQ(text(intToString(std::numeric_limits<int32_t>::min())), "-2147483648");
    EXPECT_EQ(text(floatToString(120.0f)), "120.000000");
    EXPECT_EQ(text(floatToString(-0.5f)), "-0.500000");
    EXPECT_EQ(text(floatToString(0.1f)), "0.100000");
    EXPECT_EQ(text(floatToString(1e-7f)), "0.000000");
    EXPECT_EQ(text(floatToString(16777216.0f)), "16777216.000000");
}

TEST(String, FloatToStringIgnoresTheProcessLocale) {
    const char* const commaLocales[] = {"de_DE.UTF-8", "de_DE.utf8", "fr_FR.UTF-8", "fr_FR.utf8", "de_DE"};
    const char* found = nullptr;
    for (const char* name : commaLocales) {
        if (std::setlocale(LC_NUMERIC, name)) {
            found = name;
            break;
        }
    }
    if (!found) GTEST_SKIP() << "no locale with a decimal comma installed";
    const std::string result = text(floatToString(2.5f));
    std::setlocale(LC_NUMERIC, "C");
    EXPECT_EQ(result, "2.500000") << "under " << found;
}

TEST(String, StringToInt) {
    struct Row {
        const char* input;
        int32_t expected;
    };
    constexpr int32_t fallback = -99;
    const Row rows[] = {
        {"", fallback},
        {"0", 0},
        {"42", 42},
        {"-7", -7},
        {"12.5", 12},
        {"12,5", 12},
        {".5", 0},
        {"-", 0},
        {"5-", 5},
        {"1.2.3", fallback},
        {"1,2.3", fallback},
        {"--7", fallback},
        {"-7-", fallback},
        {"12a", fallback},
        {" 12", fallback},
        {"+3", fallback},
        {"2147483647", 2147483647},
        {"-2147483648", std::numeric_limits<int32_t>::min()},
        {"99999999999", std::numeric_limits<int32_t>::max()},
    };
    for (const Row& row : rows) EXPECT_EQ(stringToInt(row.input, fallback), row.expected) << '"' << row.input << '"';
}

TEST(String, CaseAndTrim) {
    EXPECT_EQ(text(upperCase("abz-AZ\xe9")), "ABZ-AZ\xe9");

    struct Row {
        const char* input;
        const char* expected;
    };
    const Row rows[] = {
        {"   ", ""},
        {"", ""},
        {" \r\n a b \r\n", "a b"},
        {"\ta\t", "\ta\t"},
        {"\r\n", ""},
    };
    for (const Row& row : rows) EXPECT_EQ(text(trim(row.input)), row.expected) << '"' << row.input << '"';
}

TEST(String, KeyAndValueSplitAtTheFirstEquals) {
    struct Row {
        const char* line;
        const char* key;
        const char* value;
    };
    const Row rows[] = {
        {" track-noteh = 12 \r\n", "track-noteh", "12"},
        {"a=b=c", "a", "b=c"},
        {"=value", "", "value"},
        {"key=", "key", ""},
        {"no equals", "", ""},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(text(keyOf(row.line)), row.key) << row.line;
        EXPECT_EQ(text(valueOf(row.line)), row.value) << row.line;
    }
}

TEST(String, PathHelpers) {
    struct Row {
        const char* path;
        const char* extension;
        const char* name;
        const char* folder;
    };
    const Row rows[] = {
        {"/home/u/song.qv", ".qv", "song.qv", "/home/u/"},
        {"C:\\Songs\\demo.mid", ".mid", "demo.mid", "C:\\Songs\\"},
        {"/home/u/my.songs/demo", ".songs/demo", "demo", "/home/u/my.songs/"},
        {"mixed\\folder/file.wav", ".wav", "file.wav", "mixed\\folder/"},
        {"plain", "", "plain", ""},
        // The first character is never taken for a separator.
        {"/root.qv", ".qv", "/root.qv", ""},
        {"", "", "", ""},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(text(fileExtension(row.path)), row.extension) << row.path;
        EXPECT_EQ(text(fileName(row.path)), row.name) << row.path;
        EXPECT_EQ(text(filePath(row.path)), row.folder) << row.path;
    }
}

TEST(String, WithExtensionAndTrailingSeparator) {
    struct Row {
        const char* path;
        const char* expected;
    };
    const Row extensionRows[] = {
        {"song.qv", "song.wav"},
        {"a.b.c", "a.b.wav"},
        {"song", "song.wav"},
        {".hidden", ".hidden.wav"},
        {"", ".wav"},
    };
    for (const Row& row : extensionRows) EXPECT_EQ(text(withExtension(row.path, ".wav")), row.expected) << row.path;

    const Row separatorRows[] = {
        {"", ""},
        {"/home/u", "/home/u/"},
        {"/home/u/", "/home/u/"},
        {"C:\\Songs\\", "C:\\Songs\\"},
    };
    for (const Row& row : separatorRows) EXPECT_EQ(text(withTrailingSeparator(row.path)), row.expected) << row.path;
}
