#include "core/stringlist.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "platform/file_replace.h"
#include "temp_folder.h"

namespace {

std::vector<std::string> texts(const CStringList& list) {
    std::vector<std::string> result;
    for (const CStringItem* item : list.items) result.emplace_back(item->text.c_str());
    return result;
}

}  // namespace

TEST(StringList, UnsortedAppends) {
    CStringList list;
    for (const char* s : {"b", "a", "C"}) list.add(s);
    EXPECT_EQ(texts(list), (std::vector<std::string>{"b", "a", "C"}));
}

TEST(StringList, SortedInsertIgnoresCaseAndKeepsEqualTextsInArrivalOrder) {
    CStringList list;
    list.sorted = true;
    list.add("b");
    list.add("C");
    list.add("a");
    list.add("c");
    EXPECT_EQ(texts(list), (std::vector<std::string>{"a", "b", "C", "c"}));

    // Upper-casing puts "_" (0x5F) behind the letters, and bytes above 0x7F compare unsigned.
    list.add("_");
    list.add("\xE9");
    list.add("B");
    EXPECT_EQ(texts(list), (std::vector<std::string>{"a", "b", "B", "C", "c", "_", "\xE9"}));
}

TEST(StringList, LoadReadsLfAndCrLfLinesTrimmed) {
    TempFolder folder;
    const std::string path = folder.file("lines.txt");
    writeBytes(path, "first\r\n  second  \n\n \t tab \r\nlast");

    CStringList list;
    list.add("old");
    ASSERT_TRUE(list.loadFromFile(path.c_str()));
    EXPECT_EQ(texts(list), (std::vector<std::string>{"first", "second", "", "\t tab", "last"}));
}

TEST(StringList, LoadSplitsLongLinesInto255CharacterPieces) {
    TempFolder folder;
    const std::string path = folder.file("long.txt");
    const std::string line = std::string(255, 'a') + std::string(255, 'b') + std::string(90, 'c');
    writeBytes(path, line + "\nend\n");

    CStringList list;
    ASSERT_TRUE(list.loadFromFile(path.c_str()));
    EXPECT_EQ(texts(list),
              (std::vector<std::string>{std::string(255, 'a'), std::string(255, 'b'), std::string(90, 'c'), "end"}));
}

TEST(StringList, LoadOfAMissingFileLeavesTheList) {
    TempFolder folder;
    CStringList list;
    list.add("kept");
    EXPECT_FALSE(list.loadFromFile(folder.file("missing.txt").c_str()));
    EXPECT_EQ(texts(list), std::vector<std::string>{"kept"});
}

TEST(StringList, SortedLoadSortsTheLines) {
    TempFolder folder;
    const std::string path = folder.file("names.txt");
    writeBytes(path, "delta\nAlpha\ncharlie\nBravo\n");
    CStringList list;
    list.sorted = true;
    ASSERT_TRUE(list.loadFromFile(path.c_str()));
    EXPECT_EQ(texts(list), (std::vector<std::string>{"Alpha", "Bravo", "charlie", "delta"}));
}

TEST(StringList, SaveWritesCrLfAndReplacesTheFile) {
    TempFolder folder;
    const std::string path = folder.file("out.txt");
    writeBytes(path, "previous content that is longer than the new one\n");

    CStringList list;
    for (const char* s : {"one", "", "three"}) list.add(s);
    ASSERT_TRUE(list.saveToFile(path.c_str()));
    EXPECT_EQ(readBytes(path), "one\r\n\r\nthree\r\n");
    EXPECT_EQ(folder.entries(), 1u) << "the temporary file was left behind";

    CStringList loaded;
    ASSERT_TRUE(loaded.loadFromFile(path.c_str()));
    EXPECT_EQ(texts(loaded), texts(list));
}

TEST(StringList, FailedSaveLeavesTheOldFile) {
    TempFolder folder;
    const std::string path = folder.file("settings.ini");
    writeBytes(path, "old\r\n");
    // A folder where the temporary file would go makes the save fail whoever runs the test.
    std::filesystem::create_directory(path + platform::replaceSuffix);

    CStringList list;
    list.add("new");
    EXPECT_FALSE(list.saveToFile(path.c_str()));
    EXPECT_EQ(readBytes(path), "old\r\n");

    EXPECT_FALSE(list.saveToFile(folder.file("no/such/folder/x.ini").c_str()));
}
