#include "core/stream.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "platform/file_replace.h"
#include "temp_folder.h"

using namespace std::string_literals;

namespace {

std::string bytesOf(const CMemoryStream& stream) {
    return std::string(reinterpret_cast<const char*>(stream.data()), static_cast<size_t>(stream.size));
}

void fillFrom(CMemoryStream& stream, const std::string& bytes) {
    stream.write(bytes.data(), static_cast<int32_t>(bytes.size()));
    stream.seek(0, seekFromStart);
}

std::string u32le(uint32_t v) {
    return {static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16), static_cast<char>(v >> 24)};
}

std::string block(const std::string& tag, const std::string& payload) {
    return u32le(static_cast<uint32_t>(tag.size())) + tag + u32le(static_cast<uint32_t>(payload.size())) + payload;
}

// A save with what a loader meets: blocks nested two deep whose sizes closeBlock patches, a string, an
// empty block with more behind it, and tags the loader doesn't know, one differing from a known tag only
// in case.
void writeSong(CStream& stream) {
    const int32_t comp = beginBlock(stream, "comp2");
    writeBlockHeader(stream, "bpm", 4);
    stream.writeF32(133.0f);
    stream.closeBlock(beginBlock(stream, ""));
    const int32_t name = beginBlock(stream, "name");
    writeString(stream, "Bass");
    stream.closeBlock(name);
    const int32_t sub = beginBlock(stream, "sub");
    writeBlockHeader(stream, "v", 8);
    stream.writeF64(0.25);
    stream.closeBlock(sub);
    stream.closeBlock(comp);
    writeBlockHeader(stream, "future", 3);
    stream.write("xyz", 3);
    writeBlockHeader(stream, "BPM", 4);
    stream.writeF32(1.0f);
}

std::string songBytes() {
    const std::string comp = block("bpm", "\x00\x00\x05\x43"s) + block("", "") +
                             block("name", u32le(4) + "Bass") +
                             block("sub", block("v", "\x00\x00\x00\x00\x00\x00\xD0\x3F"s));
    return block("comp2", comp) + block("future", "xyz") + block("BPM", "\x00\x00\x80\x3F"s);
}

struct Loaded {
    float bpm = 0;
    double v = 0;
    CString name;
    std::vector<std::string> skipped;
    int blocks = 0;
};

// One loader for every level, as components load their own blocks and hand nested ones on. It gives up
// after 1000 blocks, so that a reader that goes round in circles fails the test rather than hangs it.
void load(CStream& stream, int32_t end, Loaded& out) {
    CBlockReader blocks(stream, end);
    while (out.blocks < 1000 && blocks.next()) {
        ++out.blocks;
        if (blocks.is("comp2") || blocks.is("sub")) load(stream, blocks.blockEnd(), out);
        else if (blocks.is("bpm")) stream.readF32(out.bpm);
        else if (blocks.is("v")) stream.readF64(out.v);
        else if (blocks.is("name")) readString(stream, out.name);
        else {
            out.skipped.emplace_back(blocks.tag().c_str());
            blocks.skip();
        }
    }
}

}  // namespace

TEST(TaggedBlock, SongRoundTripsThroughMemoryAndAFile) {
    CMemoryStream memory;
    writeSong(memory);
    EXPECT_EQ(bytesOf(memory), songBytes());

    TempFolder folder;
    const std::string path = folder.file("song.bin");
    {
        CFileStream out(path.c_str(), CFileStream::openCreate);
        writeSong(out);
        EXPECT_EQ(out.written, out.size) << "each byte counted once";
    }
    EXPECT_EQ(readBytes(path), songBytes());

    CFileStream in(path.c_str(), CFileStream::openRead);
    EXPECT_EQ(in.write("x", 1), 0) << "read-only file";
    memory.seek(0, seekFromStart);
    for (CStream* stream : {static_cast<CStream*>(&memory), static_cast<CStream*>(&in)}) {
        Loaded loaded;
        load(*stream, stream->size, loaded);
        EXPECT_EQ(loaded.bpm, 133.0f) << "tags compare case and all";
        EXPECT_EQ(loaded.v, 0.25);
        EXPECT_STREQ(loaded.name.c_str(), "Bass");
        EXPECT_EQ(loaded.skipped, (std::vector<std::string>{"", "future", "BPM"}));
        EXPECT_TRUE(stream->atEnd());
    }
}

TEST(TaggedBlock, ReaderLoopEndsOnBlocksThatOvershootOrRunDry) {
    // end -1: the size of the bytes.
    struct Row { const char* what; std::string bytes; int32_t end; int expectedBlocks; };
    const Row rows[] = {
        {"block overshooting end", block("big", std::string(20, 'x')) + block("b", ""), 12, 1},
        {"header cut in the tag", block("a", "") + u32le(3) + "ab", -1, 1},
        {"header cut in the size", block("a", "") + u32le(1) + "b" + "\x01\x00"s, -1, 1},
        {"end beyond the data", block("a", "12"), 1000, 1},
        {"negative tag length", u32le(0xFFFFFFFFu) + u32le(0), -1, 0},
        // Wrapped rather than saturated, this skip would land on the header of "b" again.
        {"size near 4 GiB", block("a", "") + u32le(1) + "b" + u32le(0xFFFFFFF7u), -1, 2},
    };
    for (const Row& row : rows) {
        CMemoryStream stream;
        fillFrom(stream, row.bytes);
        Loaded loaded;
        load(stream, row.end < 0 ? stream.size : row.end, loaded);
        EXPECT_EQ(loaded.blocks, row.expectedBlocks) << row.what;
    }
}

TEST(TaggedBlock, DamagedSavesNeverSpinOrReadOutside) {
    // Every truncation and every single-byte corruption of the song. Each header takes at least 8 bytes,
    // so a loader that visits more blocks than that allows is going round in circles.
    const std::string good = songBytes();
    const auto check = [](const std::string& bytes, const std::string& what) {
        CMemoryStream stream;
        fillFrom(stream, bytes);
        Loaded loaded;
        load(stream, stream.size, loaded);
        EXPECT_LE(loaded.blocks, static_cast<int>(bytes.size() / 8)) << what;
    };
    for (size_t length = 0; length < good.size(); ++length) {
        check(good.substr(0, length), "cut at " + std::to_string(length));
    }
    for (size_t i = 0; i < good.size(); ++i) {
        for (const unsigned char value : {0x00, 0x7F, 0x80, 0xFF}) {
            std::string bad = good;
            bad[i] = static_cast<char>(value);
            check(bad, "byte " + std::to_string(i) + " = " + std::to_string(value));
        }
    }
}

TEST(StringValue, DamagedLengthsReadNothingBehindTheLength) {
    // Nothing at all, lengths that read as negative, one beyond the stream, one a byte short.
    for (const std::string& bytes : {""s, u32le(0xFFFFFFFFu) + "abcd", u32le(0x80000000u) + "abcd",
                                     u32le(0x7FFFFFFFu) + "abcd", u32le(5) + "abcd"}) {
        CMemoryStream stream;
        fillFrom(stream, bytes);
        CString text("stale");
        EXPECT_FALSE(readString(stream, text)) << testing::PrintToString(bytes);
        EXPECT_EQ(text.length(), 0) << testing::PrintToString(bytes);
        EXPECT_EQ(stream.tell(), std::min(stream.size, 4)) << testing::PrintToString(bytes);
    }
}

TEST(StreamValues, LittleEndianLayoutAndShortReads) {
    CMemoryStream stream;
    EXPECT_TRUE(stream.writeU8(0xAB) && stream.writeU16(0x1234) && stream.writeU32(0xDEADBEEFu) &&
                stream.writeI32(-2) && stream.writeF32(-1.5f) && stream.writeF64(1.0 / 3.0));
    EXPECT_EQ(bytesOf(stream), "\xAB\x34\x12\xEF\xBE\xAD\xDE\xFE\xFF\xFF\xFF\x00\x00\xC0\xBF"
                               "\x55\x55\x55\x55\x55\x55\xD5\x3F"s);

    stream.seek(0, seekFromStart);
    std::tuple<uint8_t, uint16_t, uint32_t, int32_t, float, double> values;
    auto& [u8, u16, u32, i32, f32, f64] = values;
    EXPECT_TRUE(stream.readU8(u8) && stream.readU16(u16) && stream.readU32(u32) && stream.readI32(i32) &&
                stream.readF32(f32) && stream.readF64(f64));
    EXPECT_EQ(values, std::tuple(uint8_t{0xAB}, uint16_t{0x1234}, 0xDEADBEEFu, -2, -1.5f, 1.0 / 3.0));

    // Three bytes left: the value keeps what it had.
    stream.seek(-3, seekFromEnd);
    EXPECT_FALSE(stream.readU32(u32));
    EXPECT_EQ(u32, 0xDEADBEEFu);

    CMemoryStream bigEndian;
    fillFrom(bigEndian, "\x12\x34\x56\x78\x9A");
    EXPECT_EQ(readU32BigEndian(bigEndian), 0x12345678u);
    EXPECT_EQ(readU32BigEndian(bigEndian), 0u);
}

TEST(MemoryStream, CapacityGrowsInWholeSteps) {
    struct Row { int32_t request, capacity; };
    const Row rows[] = {{1, 8192}, {8193, 16384}, {8192, 8192}, {-20000, 0}};
    CMemoryStream stream;
    for (const Row& row : rows) {
        stream.setCapacity(row.request);
        EXPECT_EQ(stream.capacity(), row.capacity) << row.request;
    }
    EXPECT_EQ(stream.data(), nullptr);

    const std::string big(20000, 'q');
    EXPECT_EQ(stream.write(big.data(), 20000), 20000);
    EXPECT_EQ(stream.capacity(), 24576) << "the needed end, rounded up to whole steps";

    // Shrinking the capacity below the size cuts the data, never leaves size beyond the block.
    stream.setCapacity(100);
    EXPECT_EQ(stream.capacity(), 8192);
    EXPECT_EQ(bytesOf(stream), big.substr(0, 8192));
    stream.setCapacity(0);
    EXPECT_EQ(stream.size, 0);
}

TEST(MemoryStream, ReadWriteSeekAndSizeAtTheEdges) {
    // Each row starts from a stream holding `before`, positioned at `at`, takes a step and checks what the
    // step gave, the bytes and the position after it.
    struct Row {
        const char* what;
        const char* before;
        int32_t at;
        int32_t (*step)(CMemoryStream&);
        int32_t result;
        std::string after;
        int32_t tell;
    };
    static char buffer[8];
    const Row rows[] = {
        {"read from nothing", "", 0, [](auto& s) { return s.read(buffer, 4); }, 0, "", 0},
        {"empty write", "", 0, [](auto& s) { return s.write("abcd", 0); }, 0, "", 0},
        {"negative length", "ab", 0, [](auto& s) { return s.write("abcd", -1); }, 0, "ab", 0},
        {"seek before the start", "ab", 0, [](auto& s) { return s.seek(-2, seekFromCurrent); }, -2, "ab", -2},
        {"write before the start", "ab", -2, [](auto& s) { return s.write("abcd", 4); }, 0, "ab", -2},
        {"read before the start", "ab", -2, [](auto& s) { return s.read(buffer, 4); }, 0, "ab", -2},
        {"unknown origin", "ab", 1, [](auto& s) { return s.seek(5, 7); }, 1, "ab", 1},
        {"seek beyond the end", "abcde", 0, [](auto& s) { return s.seek(2, seekFromEnd); }, 7, "abcde", 7},
        {"read beyond the end", "abcde", 7, [](auto& s) { return s.read(buffer, 4); }, -2, "abcde", 7},
        {"read across the end", "abcde", 3, [](auto& s) { return s.read(buffer, 8); }, 2, "abcde", 5},
        // Gaps hold zeros, never what the block held before.
        {"write behind the end", "abcdef", 0,
         [](auto& s) { s.setSize(2); s.seek(4, seekFromStart); return s.write("xy", 2); }, 2, "ab\0\0xy"s, 6},
        {"grow", "abcdef", 1, [](auto& s) { s.setSize(2); s.setSize(5); return s.size; }, 5, "ab\0\0\0"s, 1},
        // A position beyond the new size moves to the old end.
        {"shrink below the position", "abcdef", 8, [](auto& s) { s.setSize(3); return s.size; }, 3, "abc", 6},
        {"shrink to nothing", "abcdef", 0, [](auto& s) { s.setSize(0); return s.capacity(); }, 0, "", 0},
    };
    for (const Row& row : rows) {
        CMemoryStream stream;
        stream.write(row.before, static_cast<int32_t>(std::strlen(row.before)));
        stream.seek(row.at, seekFromStart);
        EXPECT_EQ(row.step(stream), row.result) << row.what;
        EXPECT_EQ(bytesOf(stream), row.after) << row.what;
        EXPECT_EQ(stream.tell(), row.tell) << row.what;
    }
}

TEST(FileStream, ModesMissingFilesAndMixedReadWrite) {
    TempFolder folder;
    EXPECT_FALSE(CFileStream(folder.file("any").c_str(), 2).isOpen());
    EXPECT_FALSE(std::filesystem::exists(folder.file("any")));
    CFileStream missing(folder.file("missing").c_str(), CFileStream::openRead);
    EXPECT_FALSE(missing.isOpen());
    char buffer[4] = {};
    EXPECT_EQ(missing.read(buffer, 4), 0);
    EXPECT_EQ(missing.write("abcd", 4), 0);
    EXPECT_EQ(missing.seek(2, seekFromStart), 0);

    // stdio needs a seek between reads and writes; the stream makes it itself.
    const std::string path = folder.file("mixed.bin");
    CFileStream file(path.c_str(), CFileStream::openCreate);
    ASSERT_TRUE(file.isOpen());
    file.write("abcdefgh", 8);
    file.seek(0, seekFromStart);
    EXPECT_EQ(file.read(buffer, 4), 4);
    EXPECT_EQ(file.write("XY", 2), 2);
    EXPECT_EQ(file.read(buffer, 2), 2);
    EXPECT_EQ(std::string(buffer, 2), "gh");
    EXPECT_TRUE(file.close());
    EXPECT_EQ(readBytes(path), "abcdXYgh");
}

struct Saved {
    bool committed = false;
    std::string error;
};

// One block, so that a save into a device also has a size to patch.
template <class Stream>
void writeSave(Stream& stream, const std::string& payload) {
    const int32_t start = beginBlock(stream, "take");
    stream.write(payload.data(), static_cast<int32_t>(payload.size()));
    stream.closeBlock(start);
}

Saved save(const std::string& path, const std::string& payload) {
    CAtomicFileStream stream(path.c_str());
    if (stream.isOpen()) writeSave(stream, payload);
    const bool committed = stream.commit();
    return {committed, stream.error().c_str()};
}

std::string drain(int fd) {
    std::string bytes;
    char piece[4096];
    for (ssize_t count; (count = ::read(fd, piece, sizeof piece)) > 0;) bytes.append(piece, static_cast<size_t>(count));
    return bytes;
}

TEST(AtomicFileStream, SavesOverWhateverStandsAtThePath) {
    namespace fs = std::filesystem;
    TempFolder folder;
    CMemoryStream reference;
    writeSave(reference, "new");
    const std::string expected = bytesOf(reference);

    const std::string file = folder.file("song.qv");
    writeBytes(file, "old");
    {
        CAtomicFileStream abandoned(file.c_str());
        ASSERT_TRUE(abandoned.isOpen());
        abandoned.write("half", 4);
    }
    EXPECT_EQ(readBytes(file), "old");
    writeBytes(file + platform::replaceSuffix, "left by a killed save");
    EXPECT_TRUE(save(file, "new").committed);
    EXPECT_EQ(readBytes(file), expected);
    EXPECT_EQ(folder.entries(), 1u) << "no temporary file, and the stale one is gone";

    {
        // A write the file system refuses, as a full disk would, whoever runs the test.
        const auto handler = std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{};
        ::getrlimit(RLIMIT_FSIZE, &limit);
        const rlimit normal = limit;
        limit.rlim_cur = 4096;
        ::setrlimit(RLIMIT_FSIZE, &limit);
        const Saved failed = save(file, std::string(1 << 16, 'n'));
        ::setrlimit(RLIMIT_FSIZE, &normal);
        std::signal(SIGXFSZ, handler);
        EXPECT_FALSE(failed.committed);
        EXPECT_NE(failed.error, "");
        EXPECT_EQ(readBytes(file), expected);
        EXPECT_EQ(folder.entries(), 1u);
    }

    // A chain of links: the file at its end is replaced in its own folder, and the links stay links.
    fs::create_directory(folder.file("real"));
    writeBytes(folder.file("real/take.qv"), "old");
    fs::create_symlink("real/take.qv", folder.file("first"));
    fs::create_symlink("first", folder.file("second"));
    EXPECT_TRUE(save(folder.file("second"), "new").committed);
    EXPECT_TRUE(fs::is_symlink(folder.file("second")) && fs::is_symlink(folder.file("first")));
    EXPECT_EQ(readBytes(folder.file("real/take.qv")), expected);
    EXPECT_EQ(std::distance(fs::directory_iterator(folder.file("real")), {}), 1);

    // A FIFO gets the bytes; held open here, so the save need not wait for a reader, and they fit its buffer.
    const std::string pipe = folder.file("pipe");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    const int reader = ::open(pipe.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    EXPECT_TRUE(save(pipe, "new").committed);
    EXPECT_EQ(drain(reader), expected);
    ::close(reader);
    EXPECT_TRUE(fs::is_fifo(pipe));

    // Device nodes of our own where we may make them, so that a faulty save never replaces the system's.
    const auto device = [&](const char* name, unsigned minor) {
        const std::string path = folder.file(name);
        return ::mknod(path.c_str(), S_IFCHR | 0666, makedev(1, minor)) == 0 ? path : "/dev/"s + name;
    };
    const std::string null = device("null", 3), full = device("full", 7);
    EXPECT_TRUE(save(null, "new").committed);
    const Saved onFull = save(full, std::string(1 << 16, 'n'));
    EXPECT_FALSE(onFull.committed);
    EXPECT_NE(onFull.error.find(std::strerror(ENOSPC)), std::string::npos) << onFull.error;
    EXPECT_TRUE(fs::is_character_file(null) && fs::is_character_file(full));

    const Saved onFolder = save(folder.file("real"), "new");
    EXPECT_FALSE(onFolder.committed);
    EXPECT_NE(onFolder.error.find("is a folder"), std::string::npos) << onFolder.error;
    EXPECT_TRUE(fs::is_directory(folder.file("real")));
}
