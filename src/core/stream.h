#pragma once
// Streams and the tagged block. Everything the program stores is a series of blocks
// {u32 tag length, tag bytes, u32 payload size, payload}, little-endian with no padding, up to an end
// that the caller knows. A reader skips a tag it doesn't know by its size, which is the format's only
// means of compatibility: a changed layout gets a new tag, never extra fields behind an old one.
//
// Damaged input is normal. Reads that come up short return fewer bytes and leave their destination
// alone, string lengths are checked against what the stream really holds, and CBlockReader stops at
// the first header it can't read whole, so no loop spins on a stream that has run dry.
//
// Positions and sizes are 32-bit as the format stores them; arithmetic on them is done in 64 bits and
// saturated, so a damaged size can't overflow. Streams are not thread-safe.

#include <cstdint>
#include <cstdio>
#include <memory>

#include "core/string.h"

namespace platform {
class FileReplace;
}

// Origins of seek. Plain values so that stored or computed origins pass through unchanged.
enum SeekOrigin : int32_t { seekFromStart = 0, seekFromCurrent = 1, seekFromEnd = 2 };

class CStream {
public:
    CStream() = default;
    CStream(const CStream&) = delete;
    CStream& operator=(const CStream&) = delete;
    virtual ~CStream() = default;

    virtual void setSize(int32_t newSize);
    // Reads up to length bytes; the result is the number read.
    virtual int32_t read(void* buffer, int32_t length);
    virtual int32_t readData(void* buffer, int32_t length);
    // Writes length bytes; the result is the number written.
    virtual int32_t write(const void* buffer, int32_t length);
    virtual int32_t writeData(const void* buffer, int32_t length);
    // Returns the new position.
    virtual int32_t seek(int32_t offset, int32_t origin);
    virtual int32_t tell();
    virtual int32_t getSize();
    // Patches the size field written by beginBlock at start with the bytes written since.
    virtual void closeBlock(int32_t start);
    virtual bool atEnd();

    // Little-endian values. A short read gives false and leaves value as it was.
    bool readU8(uint8_t& value);
    bool readU16(uint16_t& value);
    bool readU32(uint32_t& value);
    bool readI32(int32_t& value);
    bool readF32(float& value);
    bool readF64(double& value);
    // True when every byte was written; save routines may ignore it.
    bool writeU8(uint8_t value);
    bool writeU16(uint16_t value);
    bool writeU32(uint32_t value);
    bool writeI32(int32_t value);
    bool writeF32(float value);
    bool writeF64(double value);

    // Total bytes as far as the stream knows; subclasses keep it current as they write.
    int32_t size = 0;
};

// A file through buffered stdio. Mode 0 opens an existing file for reading, mode 1 creates or truncates
// one for reading and writing; any other mode opens nothing. Callers test isOpen() right away.
class CFileStream : public CStream {
public:
    enum Mode : int32_t { openRead = 0, openCreate = 1 };

    CFileStream(CString path, int32_t mode);
    // Flushes and closes through the file handle's deleter.
    ~CFileStream() override = default;

    bool isOpen() const { return file_ != nullptr; }
    // True once any write came up short. Save routines ignore write results; committing a save asks this.
    bool writeFailed() const { return writeFailed_; }
    // Flushes and closes now; false when the data may not have reached the file.
    bool close();

    int32_t read(void* buffer, int32_t length) override;
    int32_t write(const void* buffer, int32_t length) override;
    int32_t seek(int32_t offset, int32_t origin) override;
    int32_t tell() override;
    // size is kept current on every write, so there is no need to seek to the end and back.
    int32_t getSize() override { return size; }
    void closeBlock(int32_t start) override;

    // Bytes written so far, each counted once: closeBlock takes back the 4 bytes of its patch.
    int32_t written = 0;

protected:
    // Works on a file that someone else opened and closes.
    explicit CFileStream(std::FILE* borrowed);
    // Lets go of a borrowed file without closing it.
    void forgetFile() { file_.reset(); }

private:
    enum class Access : uint8_t { none, reading, writing };
    struct Closer {
        Closer() : owned(true) {}
        explicit Closer(bool owns) : owned(owns) {}
        bool owned;
        void operator()(std::FILE* file) const {
            if (owned) std::fclose(file);
        }
    };
    void measure();
    // stdio needs a seek between a write and a following read, and the other way round.
    void switchTo(Access access);

    std::unique_ptr<std::FILE, Closer> file_;
    Access lastAccess_ = Access::none;
    bool writeFailed_ = false;
};

// Saving over a path by the rules of platform::FileReplace: a plain file is replaced atomically through a
// temporary file beside it, a link's target is replaced, a device or FIFO gets the bytes at commit, and
// anything else is refused (isOpen() false, error() says why). commit() fails when a write failed.
// Without a successful commit the old file stays as it was and no temporary file is left.
class CAtomicFileStream : public CFileStream {
public:
    explicit CAtomicFileStream(const CString& path);
    ~CAtomicFileStream() override;

    bool commit();
    // Why the save could not start or finish.
    CString error() const;

private:
    explicit CAtomicFileStream(std::unique_ptr<platform::FileReplace> replace);

    std::unique_ptr<platform::FileReplace> replace_;
};

// An owned growing buffer; undo snapshots, clipboard copies and plug-in state live in these.
class CMemoryStream : public CStream {
public:
    // Capacity grows in whole steps of this many bytes.
    static constexpr int32_t capacityStep = 8192;

    CMemoryStream() = default;

    // Rounds n up to a whole step and moves the bytes to a block of that size; 0 frees the block.
    void setCapacity(int32_t n);
    // Makes n the size. A position beyond n moves to the old end first.
    void setSize(int32_t n) override;
    int32_t read(void* buffer, int32_t length) override;
    int32_t write(const void* buffer, int32_t length) override;
    // No bounds check: a position outside the data makes read and write give 0 or less.
    int32_t seek(int32_t offset, int32_t origin) override;
    int32_t tell() override { return position_; }
    int32_t getSize() override { return size; }

    const uint8_t* data() const { return data_.get(); }
    int32_t capacity() const { return capacity_; }

private:
    std::unique_ptr<uint8_t[]> data_;
    int32_t position_ = 0;
    int32_t capacity_ = 0;
};

// u32 length, then the bytes, no NUL.
void writeString(CStream& stream, CString text);
// Reads a string value into text. A length that reads as negative, or that is longer than the bytes
// left in the stream, leaves the empty string, reads no more and gives false.
bool readString(CStream& stream, CString& text);
// Tag and size of a block whose payload size is known; the caller then writes exactly size bytes.
void writeBlockHeader(CStream& stream, CString tag, uint32_t size);
// Tag and a size of 0 to be patched by closeBlock; returns the position of the size field.
int32_t beginBlock(CStream& stream, CString tag);
// Most significant byte first, for foreign formats; 0 when the stream runs short.
uint32_t readU32BigEndian(CStream& stream);

// The reader loop every loader runs over one level of blocks:
//
//     CBlockReader blocks(stream, end);
//     while (blocks.next()) {
//         if (blocks.is("bpm")) stream.readF32(bpm);
//         else if (blocks.is("comp")) comp->load(stream, blocks.blockEnd());
//         else blocks.skip();
//     }
//
// After a known block the stream stands where its reads ended, not at blockEnd(); an overlong or short
// payload is the writer's business. next() ends the loop at end or beyond, and also at a header that
// can't be read whole, since a stream that has run dry would otherwise never reach end.
class CBlockReader {
public:
    CBlockReader(CStream& stream, int32_t end) : stream_(stream), end_(end) {}

    bool next();
    // Exact comparison, case included.
    bool is(const char* tag) const;
    const CString& tag() const { return tag_; }
    uint32_t size() const { return size_; }
    // Where the payload of the current block ends by its declared size.
    int32_t blockEnd() const { return blockEnd_; }
    // Moves past the payload of a block the caller doesn't know.
    void skip() { stream_.seek(blockEnd_, seekFromStart); }

private:
    CStream& stream_;
    int32_t end_;
    CString tag_;
    uint32_t size_ = 0;
    int32_t blockEnd_ = 0;
};
