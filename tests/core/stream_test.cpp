#include "core/stream.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "temp_folder.h"

namespace {

std::string bytesOf(const CMemoryStream& stream) {
    return std::string(reinterpret_cast<const char*>(stream.data()), static_cast<size_t>(stream.size));
}

void fillFrom(CMemoryStream& stream, const std::string& bytes) {
    stream.write(bytes.data(), static_cast<int32_t>(bytes.size()));
    stream.seek(0, seekFromStart);
}

// Hex of the bytes, for readable failures.
std::string hex(const std::string& bytes) {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : bytes) {
        out += digits[c >> 4];
        out += digits[c & 15];
        out += ' ';
    }
    return out;
}

std::string u32le(uint32_t v) {
    return {static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16), static_cast<char>(v >> 24)};
}

std::string block(const std::string& tag, const std::string& payload) {
    return u32le(static_cast<uint32_t>(tag.size())) + tag + u32le(static_cast<uint32_t>(payload.size())) + payload;
}

}  // namespace

TEST(TaggedBlock, BpmBlockIsFifteenBytes) {
    CMemoryStream stream;
    writeBlockHeader(stream, "bpm", 4);
    stream.writeF32(120.0f);
    const std::string expected("\x03\x00\x00\x00"
                               "bpm"
                               "\x04\x00\x00\x00"
                               "\x00\x00\xF0\x42",
                               15);
    EXPECT_EQ(hex(bytesOf(stream)), hex(expected));
}

TEST(TaggedBlock, NestedBlocksPatchTheirOwnSizes) {
    CMemoryStream stream;
    const int32_t outer = beginBlock(stream, "comp2");
    writeBlockHeader(stream, "chs", 1);
    stream.writeU8(2);
    const int32_t inner = beginBlock(stream, "strip2");
    stream.writeI32(-1);
    stream.closeBlock(inner);
    const int32_t empty = beginBlock(stream, "");
    stream.closeBlock(empty);
    stream.closeBlock(outer);

    const std::string innerBlocks =
        block("chs", std::string(1, '\x02')) + block("strip2", "\xFF\xFF\xFF\xFF") + block("", "");
    EXPECT_EQ(hex(bytesOf(stream)), hex(block("comp2", innerBlocks)));
    EXPECT_EQ(stream.tell(), stream.size) << "closeBlock returns to the end";
}

TEST(TaggedBlock, ReaderLoopSkipsUnknownTagsBySize) {
    CMemoryStream stream;
    writeBlockHeader(stream, "future", 6);
    stream.write("\x01\x02\x03\x04\x05\x06", 6);
    writeBlockHeader(stream, "bpm", 4);
    stream.writeF32(96.5f);
    const int32_t nested = beginBlock(stream, "timeSig");
    writeBlockHeader(stream, "num", 4);
    stream.writeI32(7);
    writeBlockHeader(stream, "unknown", 2);
    stream.writeU16(0xBEEF);
    stream.closeBlock(nested);
    writeBlockHeader(stream, "BPM", 4);  // tags compare case and all
    stream.writeF32(1.0f);
    writeBlockHeader(stream, "tail", 3);
    stream.write("xyz", 3);
    const int32_t end = stream.size;
    stream.seek(0, seekFromStart);

    float bpm = 0;
    int32_t num = 0;
    std::vector<std::string> skipped;
    CBlockReader blocks(stream, end);
    while (blocks.next()) {
        if (blocks.is("bpm")) {
            stream.readF32(bpm);
        } else if (blocks.is("timeSig")) {
            CBlockReader inner(stream, blocks.blockEnd());
            while (inner.next()) {
                if (inner.is("num")) stream.readI32(num);
                else {
                    skipped.push_back("inner " + std::string(inner.tag().c_str()));
                    inner.skip();
                }
            }
        } else {
            skipped.emplace_back(blocks.tag().c_str());
            blocks.skip();
        }
    }
    EXPECT_EQ(bpm, 96.5f);
    EXPECT_EQ(num, 7);
    EXPECT_EQ(skipped, (std::vector<std::string>{"future", "inner unknown", "BPM", "tail"}));
    EXPECT_EQ(stream.tell(), end);
}

TEST(TaggedBlock, ReaderLoopEndsOnBlocksThatOvershootOrRunDry) {
    struct Row {
        const char* what;
        std::string bytes;
        int32_t end;  // -1: the size of the bytes
        int expectedBlocks;
    };
    const Row rows[] = {
        {"zero-size block", block("a", "") + block("b", "1234"), -1, 2},
        {"block overshooting end", block("big", std::string(20, 'x')) + block("b", ""), 12, 1},
        {"size beyond the stream", block("a", "") + u32le(1) + "b" + u32le(0xFFFFFFF0u), -1, 2},
        {"header cut short", block("a", "") + u32le(3) + "ab", -1, 1},
        {"end beyond the data", block("a", "12"), 1000, 1},
        {"tag length beyond the data", u32le(0x7FFFFFF0u) + "x", -1, 0},
        {"negative tag length", u32le(0xFFFFFFFFu) + u32le(0), -1, 0},
    };
    for (const Row& row : rows) {
        CMemoryStream stream;
        fillFrom(stream, row.bytes);
        CBlockReader blocks(stream, row.end < 0 ? stream.size : row.end);
        int count = 0;
        while (blocks.next() && count < 100) {
            ++count;
            blocks.skip();
        }
        EXPECT_EQ(count, row.expectedBlocks) << row.what;
    }

    // Skipping a size near 4 GiB goes forward, never round to a negative position.
    CMemoryStream stream;
    fillFrom(stream, block("a", "") + u32le(1) + "b" + u32le(0xFFFFFFF0u) + block("c", ""));
    CBlockReader blocks(stream, stream.size);
    ASSERT_TRUE(blocks.next() && blocks.next());
    blocks.skip();
    EXPECT_GE(stream.tell(), stream.size);
}

TEST(TaggedBlock, DamagedStreamsNeverSpinOrReadOutside) {
    // A nested save, then every truncation and every single-byte corruption of it through a recursive
    // loader. Each header takes at least 8 bytes, so a reader that visits more blocks than that allows
    // is going round in circles.
    CMemoryStream original;
    const int32_t outer = beginBlock(original, "comp2");
    writeBlockHeader(original, "name", 8);
    writeString(original, "lead");
    const int32_t inner = beginBlock(original, "sub");
    writeBlockHeader(original, "v", 8);
    original.writeF64(0.25);
    original.closeBlock(inner);
    original.closeBlock(outer);
    writeBlockHeader(original, "bpm", 4);
    original.writeF32(120.0f);
    const std::string good = bytesOf(original);

    int visited = 0;
    std::function<void(CStream&, int32_t)> load = [&](CStream& stream, int32_t end) {
        CBlockReader blocks(stream, end);
        while (blocks.next()) {
            ++visited;
            if (blocks.is("comp2") || blocks.is("sub")) {
                load(stream, blocks.blockEnd());
            } else if (blocks.is("name")) {
                CString name;
                readString(stream, name);
            } else if (blocks.is("v")) {
                double v = 0;
                stream.readF64(v);
            } else {
                blocks.skip();
            }
        }
    };
    auto check = [&](const std::string& bytes, const std::string& what) {
        CMemoryStream stream;
        fillFrom(stream, bytes);
        visited = 0;
        load(stream, stream.size);
        EXPECT_LE(visited, static_cast<int>(bytes.size() / 8)) << what;
    };
    check(good, "intact");
    for (size_t length = 0; length < good.size(); ++length) check(good.substr(0, length), "cut at " + std::to_string(length));
    for (size_t i = 0; i < good.size(); ++i) {
        for (unsigned char value : {0x00, 0x7F, 0x80, 0xFF}) {
            std::string bad = good;
            bad[i] = static_cast<char>(value);
            check(bad, "byte " + std::to_string(i) + " = " + std::to_string(value));
        }
    }
}

TEST(StringValue, RoundTripAndDamagedLengths) {
    CMemoryStream stream;
    writeString(stream, "");
    writeString(stream, "hello");
    stream.seek(0, seekFromStart);
    CString text("stale");
    EXPECT_TRUE(readString(stream, text));
    EXPECT_EQ(text.length(), 0);
    EXPECT_TRUE(readString(stream, text));
    EXPECT_STREQ(text.c_str(), "hello");
    EXPECT_FALSE(readString(stream, text)) << "nothing left";
    EXPECT_EQ(text.length(), 0);

    struct Row {
        const char* what;
        std::string bytes;
    };
    const Row rows[] = {
        {"0xFFFFFFFF", u32le(0xFFFFFFFFu) + "abcd"},
        {"0x80000000", u32le(0x80000000u) + "abcd"},
        {"longer than the stream", u32le(0x7FFFFFFFu) + "abcd"},
        {"one byte short", u32le(5) + "abcd"},
    };
    for (const Row& row : rows) {
        CMemoryStream damaged;
        fillFrom(damaged, row.bytes);
        CString out("stale");
        EXPECT_FALSE(readString(damaged, out)) << row.what;
        EXPECT_EQ(out.length(), 0) << row.what;
        EXPECT_EQ(damaged.tell(), 4) << row.what << ": nothing read behind the length";
    }
}

TEST(StreamValues, LittleEndianRoundTripAndShortReads) {
    CMemoryStream stream;
    stream.writeU8(0xAB);
    stream.writeU16(0x1234);
    stream.writeU32(0xDEADBEEFu);
    stream.writeI32(-2);
    stream.writeF32(-1.5f);
    stream.writeF64(1.0 / 3.0);
    EXPECT_EQ(hex(bytesOf(stream).substr(0, 11)), hex(std::string("\xAB\x34\x12\xEF\xBE\xAD\xDE\xFE\xFF\xFF\xFF", 11)));
    EXPECT_EQ(stream.size, 1 + 2 + 4 + 4 + 4 + 8);

    stream.seek(0, seekFromStart);
    uint8_t u8 = 0;
    uint16_t u16 = 0;
    uint32_t u32 = 0;
    int32_t i32 = 0;
    float f32 = 0;
    double f64 = 0;
    EXPECT_TRUE(stream.readU8(u8) && stream.readU16(u16) && stream.readU32(u32) && stream.readI32(i32) &&
                stream.readF32(f32) && stream.readF64(f64));
    EXPECT_EQ(u8, 0xAB);
    EXPECT_EQ(u16, 0x1234);
    EXPECT_EQ(u32, 0xDEADBEEFu);
    EXPECT_EQ(i32, -2);
    EXPECT_EQ(f32, -1.5f);
    EXPECT_EQ(f64, 1.0 / 3.0);

    // Three bytes left: the value keeps what it had.
    stream.seek(-3, seekFromEnd);
    u32 = 77;
    EXPECT_FALSE(stream.readU32(u32));
    EXPECT_EQ(u32, 77u);

    CMemoryStream bigEndian;
    fillFrom(bigEndian, "\x12\x34\x56\x78\x9A");
    EXPECT_EQ(readU32BigEndian(bigEndian), 0x12345678u);
    EXPECT_EQ(readU32BigEndian(bigEndian), 0u);
}

TEST(MemoryStream, EmptyStream) {
    CMemoryStream stream;
    char buffer[4] = {};
    EXPECT_EQ(stream.read(buffer, 4), 0);
    EXPECT_TRUE(stream.atEnd());
    EXPECT_EQ(stream.data(), nullptr);
    EXPECT_EQ(stream.getSize(), 0);
}

TEST(MemoryStream, CapacityGrowsInWholeSteps) {
    struct Row {
        int32_t request;
        int32_t capacity;
    };
    const Row rows[] = {{1, 8192}, {8192, 8192}, {8193, 16384}, {0, 0}, {-5, 0}};
    CMemoryStream stream;
    for (const Row& row : rows) {
        stream.setCapacity(row.request);
        EXPECT_EQ(stream.capacity(), row.capacity) << row.request;
    }
    EXPECT_EQ(stream.data(), nullptr);

    std::vector<char> big(20000, 'q');
    EXPECT_EQ(stream.write(big.data(), 20000), 20000);
    EXPECT_EQ(stream.capacity() % CMemoryStream::capacityStep, 0);
    EXPECT_GE(stream.capacity(), 20000);

    // Shrinking the capacity below the size cuts the data, never leaves size beyond the block.
    stream.setCapacity(100);
    EXPECT_EQ(stream.capacity(), 8192);
    EXPECT_LE(stream.size, stream.capacity());
    EXPECT_EQ(bytesOf(stream), std::string(8192, 'q'));
}

TEST(MemoryStream, WriteReadAndSeekOutsideTheData) {
    CMemoryStream stream;
    char buffer[8] = {};
    EXPECT_EQ(stream.write("abcd", -1), 0);
    EXPECT_EQ(stream.write("abcd", 0), 0) << "end below 1";
    EXPECT_EQ(stream.seek(-2, seekFromCurrent), -2);
    EXPECT_EQ(stream.write("abcd", 4), 0);
    EXPECT_EQ(stream.read(buffer, 4), 0);
    EXPECT_EQ(stream.seek(5, 7), -2) << "unknown origin changes nothing";

    // A write behind the end fills the gap with zeros.
    stream.seek(3, seekFromStart);
    EXPECT_EQ(stream.write("xy", 2), 2);
    EXPECT_EQ(bytesOf(stream), std::string("\0\0\0xy", 5));

    // Reading beyond the end gives what is left, which may be negative.
    EXPECT_EQ(stream.seek(2, seekFromEnd), 7);
    EXPECT_EQ(stream.read(buffer, 4), -2);
    stream.seek(-2, seekFromEnd);
    EXPECT_EQ(stream.read(buffer, 8), 2);
    EXPECT_EQ(std::string(buffer, 2), "xy");
    EXPECT_EQ(stream.tell(), 5);
    EXPECT_TRUE(stream.atEnd());
}

TEST(MemoryStream, SetSize) {
    CMemoryStream stream;
    stream.write("abcdef", 6);
    stream.setSize(10);
    EXPECT_EQ(bytesOf(stream), std::string("abcdef\0\0\0\0", 10));
    EXPECT_EQ(stream.tell(), 6);

    // The position stood beyond the new size, so it moves to the old end.
    stream.seek(8, seekFromStart);
    stream.setSize(3);
    EXPECT_EQ(bytesOf(stream), "abc");
    EXPECT_EQ(stream.tell(), 10);

    stream.seek(1, seekFromStart);
    stream.setSize(2);
    EXPECT_EQ(stream.tell(), 1);
    stream.setSize(0);
    EXPECT_EQ(stream.size, 0);
    EXPECT_EQ(stream.capacity(), 0);
}

TEST(FileStream, ModesAndMissingFiles) {
    TempFolder folder;
    EXPECT_FALSE(CFileStream(folder.file("any").c_str(), 2).isOpen());
    EXPECT_FALSE(std::filesystem::exists(folder.file("any")));
    EXPECT_FALSE(CFileStream(folder.file("missing").c_str(), CFileStream::openRead).isOpen());

    CFileStream closed(folder.file("missing").c_str(), CFileStream::openRead);
    char buffer[4];
    EXPECT_EQ(closed.read(buffer, 4), 0);
    EXPECT_EQ(closed.write("abcd", 4), 0);
    EXPECT_EQ(closed.seek(2, seekFromStart), 0);
}

TEST(FileStream, BlocksRoundTripThroughARealFile) {
    TempFolder folder;
    const std::string path = folder.file("state.bin");
    {
        CFileStream out(path.c_str(), CFileStream::openCreate);
        ASSERT_TRUE(out.isOpen());
        const int32_t outer = beginBlock(out, "comp2");
        writeBlockHeader(out, "bpm", 4);
        out.writeF32(133.0f);
        const int32_t inner = beginBlock(out, "name");
        writeString(out, "Bass");
        out.closeBlock(inner);
        out.closeBlock(outer);
        EXPECT_EQ(out.written, out.size) << "each byte counted once";
        EXPECT_EQ(out.getSize(), out.tell());
    }
    const std::string bytes = readBytes(path);
    EXPECT_EQ(hex(bytes), hex(block("comp2", block("bpm", std::string("\x00\x00\x05\x43", 4)) +
                                                   block("name", u32le(4) + "Bass"))));

    CFileStream in(path.c_str(), CFileStream::openRead);
    ASSERT_TRUE(in.isOpen());
    EXPECT_EQ(in.size, static_cast<int32_t>(bytes.size()));
    EXPECT_EQ(in.tell(), 0);
    EXPECT_EQ(in.write("x", 1), 0) << "read-only file";
    float bpm = 0;
    CString name;
    CBlockReader top(in, in.size);
    ASSERT_TRUE(top.next());
    EXPECT_TRUE(top.is("comp2"));
    CBlockReader blocks(in, top.blockEnd());
    while (blocks.next()) {
        if (blocks.is("bpm")) in.readF32(bpm);
        else if (blocks.is("name")) readString(in, name);
        else blocks.skip();
    }
    EXPECT_FALSE(top.next());
    EXPECT_TRUE(in.atEnd());
    EXPECT_EQ(bpm, 133.0f);
    EXPECT_STREQ(name.c_str(), "Bass");
}

TEST(FileStream, ReadAndWriteMayFollowEachOtherWithoutASeek) {
    TempFolder folder;
    const std::string path = folder.file("mixed.bin");
    CFileStream file(path.c_str(), CFileStream::openCreate);
    ASSERT_TRUE(file.isOpen());
    file.write("abcdefgh", 8);
    file.seek(0, seekFromStart);
    char buffer[9] = {};
    EXPECT_EQ(file.read(buffer, 4), 4);
    EXPECT_EQ(file.write("XY", 2), 2);
    EXPECT_EQ(file.read(buffer, 2), 2);
    EXPECT_EQ(std::string(buffer, 2), "gh");
    file.seek(0, seekFromStart);
    EXPECT_EQ(file.read(buffer, 9), 8);
    EXPECT_EQ(std::string(buffer, 8), "abcdXYgh");
    EXPECT_TRUE(file.close());
    EXPECT_EQ(readBytes(path), "abcdXYgh");
}

TEST(AtomicFileStream, ReplacesOnlyOnCommit) {
    TempFolder folder;
    const std::string path = folder.file("song.qv");
    writeBytes(path, "old");
    {
        CAtomicFileStream abandoned(path.c_str());
        ASSERT_TRUE(abandoned.isOpen());
        abandoned.write("half", 4);
    }
    EXPECT_EQ(readBytes(path), "old");
    EXPECT_EQ(folder.entries(), 1u);

    CAtomicFileStream save(path.c_str());
    ASSERT_TRUE(save.isOpen());
    save.write("new", 3);
    EXPECT_EQ(readBytes(path), "old") << "nothing visible before commit";
    EXPECT_TRUE(save.commit());
    EXPECT_FALSE(save.isOpen());
    EXPECT_EQ(readBytes(path), "new");
    EXPECT_EQ(folder.entries(), 1u);
}

TEST(AtomicFileStream, FullDiskKeepsTheOldFile) {
    if (!std::filesystem::exists("/dev/full")) GTEST_SKIP() << "no /dev/full";
    TempFolder folder;
    const std::string path = folder.file("song.qv");
    writeBytes(path, "old");
    // The temporary file's name leads to a device where every write fails for lack of space.
    std::filesystem::create_symlink("/dev/full", path + ".tmp");

    CAtomicFileStream save(path.c_str());
    ASSERT_TRUE(save.isOpen());
    const std::vector<char> payload(1 << 16, 'n');
    save.write(payload.data(), static_cast<int32_t>(payload.size()));
    EXPECT_TRUE(save.writeFailed());
    EXPECT_FALSE(save.commit());
    // Checked before reading: a rename that went through would make the target the endless device.
    ASSERT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(path)));
    EXPECT_EQ(readBytes(path), "old");
    EXPECT_EQ(folder.entries(), 1u);
}
