#include "core/stream.h"

#include "platform/file_replace.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

namespace {

constexpr int64_t maxPosition = std::numeric_limits<int32_t>::max();

constexpr int32_t saturate(int64_t value) {
    return static_cast<int32_t>(std::clamp<int64_t>(value, std::numeric_limits<int32_t>::min(), maxPosition));
}

template <class T>
bool readLittleEndian(CStream& stream, T& value) {
    uint8_t bytes[sizeof(T)];
    if (stream.read(bytes, sizeof(T)) != static_cast<int32_t>(sizeof(T))) return false;
    T result = 0;
    for (size_t i = 0; i < sizeof(T); ++i) result |= static_cast<T>(static_cast<T>(bytes[i]) << (8 * i));
    value = result;
    return true;
}

template <class T>
bool writeLittleEndian(CStream& stream, T value) {
    uint8_t bytes[sizeof(T)];
    for (size_t i = 0; i < sizeof(T); ++i) bytes[i] = static_cast<uint8_t>(value >> (8 * i));
    return stream.write(bytes, sizeof(T)) == static_cast<int32_t>(sizeof(T));
}

}  // namespace

// ---- CStream

void CStream::setSize(int32_t) {}

int32_t CStream::read(void*, int32_t) { return 0; }

int32_t CStream::readData(void* buffer, int32_t length) { return read(buffer, length); }

int32_t CStream::write(const void*, int32_t) { return 0; }

int32_t CStream::writeData(const void* buffer, int32_t length) { return write(buffer, length); }

int32_t CStream::seek(int32_t, int32_t) { return 0; }

int32_t CStream::tell() { return 0; }

int32_t CStream::getSize() {
    const int32_t position = tell();
    const int32_t end = seek(0, seekFromEnd);
    seek(position, seekFromStart);
    return end;
}

void CStream::closeBlock(int32_t start) {
    const int32_t end = tell();
    seek(start, seekFromStart);
    writeU32(static_cast<uint32_t>(int64_t{end} - start - 4));
    seek(end, seekFromStart);
}

bool CStream::atEnd() { return tell() >= size; }

bool CStream::readU8(uint8_t& value) { return readLittleEndian(*this, value); }
bool CStream::readU16(uint16_t& value) { return readLittleEndian(*this, value); }
bool CStream::readU32(uint32_t& value) { return readLittleEndian(*this, value); }

bool CStream::readI32(int32_t& value) {
    uint32_t bits = 0;
    if (!readU32(bits)) return false;
    value = static_cast<int32_t>(bits);
    return true;
}

bool CStream::readF32(float& value) {
    uint32_t bits = 0;
    if (!readU32(bits)) return false;
    value = std::bit_cast<float>(bits);
    return true;
}

bool CStream::readF64(double& value) {
    uint64_t bits = 0;
    if (!readLittleEndian(*this, bits)) return false;
    value = std::bit_cast<double>(bits);
    return true;
}

bool CStream::writeU8(uint8_t value) { return writeLittleEndian(*this, value); }
bool CStream::writeU16(uint16_t value) { return writeLittleEndian(*this, value); }
bool CStream::writeU32(uint32_t value) { return writeLittleEndian(*this, value); }
bool CStream::writeI32(int32_t value) { return writeU32(static_cast<uint32_t>(value)); }
bool CStream::writeF32(float value) { return writeU32(std::bit_cast<uint32_t>(value)); }
bool CStream::writeF64(double value) { return writeLittleEndian(*this, std::bit_cast<uint64_t>(value)); }

// ---- CFileStream

CFileStream::CFileStream(CString path, int32_t mode) {
    const char* how = mode == openRead ? "rb" : mode == openCreate ? "w+b" : nullptr;
    if (!how) return;
    file_.reset(std::fopen(path.c_str(), how));
    measure();
}

CFileStream::CFileStream(std::FILE* borrowed) : file_(borrowed, Closer{false}) { measure(); }

void CFileStream::measure() {
    if (!file_) return;
    if (std::fseek(file_.get(), 0, SEEK_END) == 0) size = std::max(tell(), 0);
    std::fseek(file_.get(), 0, SEEK_SET);
}

bool CFileStream::close() {
    if (!file_) return false;
    const bool flushed = std::fflush(file_.get()) == 0;
    const bool closed = std::fclose(file_.release()) == 0;
    return flushed && closed;
}

void CFileStream::switchTo(Access access) {
    if (lastAccess_ != Access::none && lastAccess_ != access) std::fseek(file_.get(), 0, SEEK_CUR);
    lastAccess_ = access;
}

int32_t CFileStream::read(void* buffer, int32_t length) {
    if (!file_ || !buffer || length <= 0) return 0;
    switchTo(Access::reading);
    const size_t count = std::fread(buffer, 1, static_cast<size_t>(length), file_.get());
    if (std::ferror(file_.get())) {
        std::clearerr(file_.get());
        return 0;
    }
    return static_cast<int32_t>(count);
}

int32_t CFileStream::write(const void* buffer, int32_t length) {
    if (!file_ || !buffer || length <= 0) return 0;
    written = saturate(int64_t{written} + length);
    switchTo(Access::writing);
    const size_t count = std::fwrite(buffer, 1, static_cast<size_t>(length), file_.get());
    if (std::ferror(file_.get())) {
        std::clearerr(file_.get());
        writeFailed_ = true;
        return 0;
    }
    size = std::max(size, tell());
    return static_cast<int32_t>(count);
}

int32_t CFileStream::seek(int32_t offset, int32_t origin) {
    if (!file_) return 0;
    const int whence = origin == seekFromStart     ? SEEK_SET
                       : origin == seekFromCurrent ? SEEK_CUR
                       : origin == seekFromEnd     ? SEEK_END
                                                   : -1;
    if (whence >= 0 && std::fseek(file_.get(), offset, whence) == 0) lastAccess_ = Access::none;
    return tell();
}

int32_t CFileStream::tell() {
    if (!file_) return 0;
    return saturate(std::max(std::ftell(file_.get()), 0L));
}

void CFileStream::closeBlock(int32_t start) {
    CStream::closeBlock(start);
    written = saturate(int64_t{written} - 4);
}

// ---- CAtomicFileStream

CAtomicFileStream::CAtomicFileStream(const CString& path)
    : CAtomicFileStream(std::make_unique<platform::FileReplace>(path.c_str(), true)) {}

CAtomicFileStream::CAtomicFileStream(std::unique_ptr<platform::FileReplace> replace)
    : CFileStream(replace->file()), replace_(std::move(replace)) {}

// The file belongs to replace_, which removes the temporary file when no commit came.
CAtomicFileStream::~CAtomicFileStream() { forgetFile(); }

bool CAtomicFileStream::commit() {
    if (!isOpen()) return false;
    forgetFile();
    // A short write leaves the stream's error flag clear once it was seen, so it is told here.
    if (writeFailed()) {
        replace_->abandon();
        return false;
    }
    return replace_->commit();
}

CString CAtomicFileStream::error() const {
    if (writeFailed()) return concat("cannot write ", replace_->target().path.c_str());
    return replace_->error().c_str();
}

// ---- CMemoryStream

void CMemoryStream::setCapacity(int32_t n) {
    const int64_t rounded = n < 1 ? 0 : (int64_t{n} + capacityStep - 1) / capacityStep * capacityStep;
    if (rounded > maxPosition || rounded == capacity_) return;
    if (rounded == 0) {
        data_.reset();
        capacity_ = 0;
        size = 0;
        return;
    }
    std::unique_ptr<uint8_t[]> block(new (std::nothrow) uint8_t[static_cast<size_t>(rounded)]);
    if (!block) return;
    const int32_t keep = std::min(size, static_cast<int32_t>(rounded));
    if (keep > 0) std::memcpy(block.get(), data_.get(), static_cast<size_t>(keep));
    data_ = std::move(block);
    capacity_ = static_cast<int32_t>(rounded);
    // size never exceeds the block, whoever shrinks it.
    size = keep;
}

void CMemoryStream::setSize(int32_t n) {
    n = std::max(n, 0);
    const int32_t oldSize = size;
    setCapacity(n);
    if (capacity_ < n) return;
    if (position_ > n) position_ = oldSize;
    if (n > oldSize) std::memset(data_.get() + oldSize, 0, static_cast<size_t>(n - oldSize));
    size = n;
}

int32_t CMemoryStream::read(void* buffer, int32_t length) {
    if (position_ < 0 || length < 0) return 0;
    const int32_t left = size - position_;
    if (left < 1) return left;
    const int32_t count = std::min(length, left);
    if (count == 0 || !buffer) return 0;
    std::memcpy(buffer, data_.get() + position_, static_cast<size_t>(count));
    position_ += count;
    return count;
}

int32_t CMemoryStream::write(const void* buffer, int32_t length) {
    if (position_ < 0 || length < 0) return 0;
    const int64_t end = int64_t{position_} + length;
    if (end < 1 || end > maxPosition || (length > 0 && !buffer)) return 0;
    if (end > size) {
        if (end > capacity_) {
            // Doubling keeps the copying linear when a large state is written in many small values.
            constexpr int64_t largestCapacity = maxPosition / capacityStep * capacityStep;
            setCapacity(static_cast<int32_t>(std::max(end, std::min(int64_t{capacity_} * 2, largestCapacity))));
            if (end > capacity_) return 0;
        }
        // A write behind the end leaves zeros in the gap rather than whatever the block held.
        if (position_ > size) std::memset(data_.get() + size, 0, static_cast<size_t>(position_ - size));
        size = static_cast<int32_t>(end);
    }
    if (length > 0) std::memcpy(data_.get() + position_, buffer, static_cast<size_t>(length));
    position_ = static_cast<int32_t>(end);
    return length;
}

int32_t CMemoryStream::seek(int32_t offset, int32_t origin) {
    switch (origin) {
        case seekFromStart: position_ = offset; break;
        case seekFromCurrent: position_ = saturate(int64_t{position_} + offset); break;
        case seekFromEnd: position_ = saturate(int64_t{size} + offset); break;
        default: break;
    }
    return position_;
}

// ---- Strings and blocks

void writeString(CStream& stream, CString text) {
    const int32_t length = std::max(text.length(), 0);
    stream.writeU32(static_cast<uint32_t>(length));
    stream.write(text.c_str(), length);
}

bool readString(CStream& stream, CString& text) {
    text = CString();
    uint32_t length = 0;
    if (!stream.readU32(length)) return false;
    if (length == 0) return true;
    // Checked before allocating, so a damaged length never asks for gigabytes. A length that reads as
    // negative is above 2^31 and fails here too.
    if (int64_t{length} > int64_t{stream.getSize()} - stream.tell()) return false;
    const auto bytes = std::make_unique_for_overwrite<char[]>(length);
    const auto count = static_cast<int32_t>(length);
    if (stream.read(bytes.get(), count) != count) return false;
    text = CString(bytes.get(), count);
    return true;
}

void writeBlockHeader(CStream& stream, CString tag, uint32_t size) {
    writeString(stream, std::move(tag));
    stream.writeU32(size);
}

int32_t beginBlock(CStream& stream, CString tag) {
    writeString(stream, std::move(tag));
    const int32_t start = stream.tell();
    stream.writeU32(0);
    return start;
}

uint32_t readU32BigEndian(CStream& stream) {
    uint8_t bytes[4];
    if (stream.read(bytes, 4) != 4) return 0;
    return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

// ---- CBlockReader

bool CBlockReader::next() {
    if (stream_.tell() >= end_) return false;
    if (!readString(stream_, tag_) || !stream_.readU32(size_)) return false;
    blockEnd_ = saturate(int64_t{stream_.tell()} + size_);
    return true;
}

bool CBlockReader::is(const char* tag) const { return std::strcmp(tag_.c_str(), tag) == 0; }
