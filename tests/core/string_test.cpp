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

TEST(String, NumbersToTextIgnoreTheProcessLocale) {
    // Under a locale with a decimal comma when one is installed.
    const char* locale = "C";
    for (const char* name : {"de_DE.UTF-8", "de_DE.utf8", "fr_FR.UTF-8", "fr_FR.utf8", "de_DE"}) {
        if (std::setlocale(LC_NUMERIC, name)) {
            locale = name;
            break;
        }
    }
    SCOPED_TRACE(locale);
    EXPECT_EQ(text(intToString(std::numeric_limits<int32_t>::min())), "-2147483648");
    EXPECT_EQ(text(floatToString(2.5f)), "2.500000");
    EXPECT_EQ(text(floatToString(-0.5f)), "-0.500000");
    EXPECT_EQ(text(floatToString(0.1f)), "0.100000");
    EXPECT_EQ(text(floatToString(1e-7f)), "0.000000");
    EXPECT_EQ(text(floatToString(16777216.0f)), "16777216.000000");
    std::setlocale(LC_NUMERIC, "C");
}

TEST(String, StringToInt) {
    constexpr int32_t fallback = -99;
    constexpr int32_t min = std::numeric_limits<int32_t>::min();
    constexpr int32_t max = std::numeric_limits<int32_t>::max();
    struct Row { const char* input; int32_t expected; };
    const Row rows[] = {
        {"", fallback},      {"0", 0},             {"42", 42},           {"-7", -7},
        {"12.5", 12},        {"12,5", 12},         {".5", 0},            {"-", 0},
        {"5-", 5},           {"1,2.3", fallback},  {"--7", fallback},    {"-7-", fallback},
        {"12a", fallback},   {" 12", fallback},    {"+3", fallback},     {"2147483647", max},
        {"-2147483648", min}, {"99999999999", max}, {"-99999999999", min},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(stringToInt(row.input, fallback), row.expected) << '"' << row.input << '"';
    }
}

TEST(String, CaseTrimAndKeyValue) {
    EXPECT_EQ(text(upperCase("abz-AZ\xe9")), "ABZ-AZ\xe9");

    struct Row { const char* input; const char* trimmed; const char* key; const char* value; };
    const Row rows[] = {
        {"", "", "", ""},
        {"   ", "", "", ""},
        {"\ta\t", "\ta\t", "", ""},  // tabs stay
        {" track-noteh = 12 \r\n", "track-noteh = 12", "track-noteh", "12"},
        {"a=b=c", "a=b=c", "a", "b=c"},
        {"\r\n=value", "=value", "", "value"},
        {"key=", "key=", "key", ""},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(text(trim(row.input)), row.trimmed) << '"' << row.input << '"';
        EXPECT_EQ(text(keyOf(row.input)), row.key) << '"' << row.input << '"';
        EXPECT_EQ(text(valueOf(row.input)), row.value) << '"' << row.input << '"';
    }
}

TEST(String, PathHelpers) {
    struct Row {
        const char* path;
        const char* extension;
        const char* name;
        const char* folder;
        const char* wav;
    };
    const Row rows[] = {
        {"/home/u/song.qv", ".qv", "song.qv", "/home/u/", "/home/u/song.wav"},
        {"C:\\Songs\\demo.mid", ".mid", "demo.mid", "C:\\Songs\\", "C:\\Songs\\demo.wav"},
        {"/home/u/my.songs/demo", ".songs/demo", "demo", "/home/u/my.songs/", "/home/u/my.wav"},
        {"mixed\\folder/a.b.c", ".c", "a.b.c", "mixed\\folder/", "mixed\\folder/a.b.wav"},
        {"plain", "", "plain", "", "plain.wav"},
        // The first character is never taken for a separator, nor for the dot of an extension.
        {"/root.qv", ".qv", "/root.qv", "", "/root.wav"},
        {".hidden", ".hidden", ".hidden", "", ".hidden.wav"},
        {"", "", "", "", ".wav"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(text(fileExtension(row.path)), row.extension) << row.path;
        EXPECT_EQ(text(fileName(row.path)), row.name) << row.path;
        EXPECT_EQ(text(filePath(row.path)), row.folder) << row.path;
        EXPECT_EQ(text(withExtension(row.path, ".wav")), row.wav) << row.path;
        // A folder, empty or ending in either separator, is left as it is.
        EXPECT_EQ(text(withTrailingSeparator(row.folder)), row.folder) << row.path;
    }
    EXPECT_EQ(text(withTrailingSeparator("/home/u")), "/home/u/");
}
