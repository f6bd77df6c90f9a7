#pragma once
// Little-endian bytes built by hand, to hold against what the program writes or to feed its readers, and
// memory streams over them.

#include <cstdint>
#include <cstring>
#include <vector>

#include "core/stream.h"

namespace bytestest {

// Each call appends and hands back the builder, so that a layout reads as one chain; a suite adds the
// pieces of its own format in a subclass, `struct MyBytes : BasicBytes<MyBytes>`.
template <class Self> struct BasicBytes {
    std::vector<uint8_t> data;
    Self& u8(uint32_t v) {
        data.push_back(static_cast<uint8_t>(v));
        return self();
    }
    Self& u32(uint32_t v) {
        for (int k = 0; k < 4; ++k) data.push_back(static_cast<uint8_t>(v >> (8 * k)));
        return self();
    }
    Self& i32(int32_t v) { return u32(static_cast<uint32_t>(v)); }
    Self& f32(float v) {
        uint32_t bits;
        std::memcpy(&bits, &v, 4);
        return u32(bits);
    }
    // A string as the streams keep it: its length, then its bytes.
    Self& text(const char* s) {
        u32(static_cast<uint32_t>(std::strlen(s)));
        for (const char* c = s; *c; ++c) data.push_back(static_cast<uint8_t>(*c));
        return self();
    }
    // A block's header: its tag as a string, then the size of what follows.
    Self& header(const char* tag, uint32_t size) { return text(tag).u32(size); }
    Self& zeros(int32_t count) {
        data.insert(data.end(), static_cast<size_t>(count), 0);
        return self();
    }
    template <class Other> Self& append(const BasicBytes<Other>& other) {
        data.insert(data.end(), other.data.begin(), other.data.end());
        return self();
    }

  private:
    Self& self() { return static_cast<Self&>(*this); }
};

struct Bytes : BasicBytes<Bytes> {};

inline std::vector<uint8_t> bytesOf(CMemoryStream& stream) {
    return std::vector<uint8_t>(stream.data(), stream.data() + stream.getSize());
}

// A stream holding `bytes`, read from the start.
inline void fill(CMemoryStream& stream, const std::vector<uint8_t>& bytes) {
    if (!bytes.empty()) stream.write(bytes.data(), static_cast<int32_t>(bytes.size()));
    stream.seek(0, seekFromStart);
}

// What an object's save(stream) writes.
template <class T> std::vector<uint8_t> saved(T& object) {
    CMemoryStream stream;
    object.save(stream);
    return bytesOf(stream);
}

// Hands `bytes` to an object's load(stream, size).
template <class T> void loadBytes(T& object, const std::vector<uint8_t>& bytes) {
    CMemoryStream stream;
    fill(stream, bytes);
    object.load(stream, stream.getSize());
}

} // namespace bytestest
