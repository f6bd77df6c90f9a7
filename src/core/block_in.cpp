#include "core/block_in.h"

#include <memory>

int32_t BlockIn::left() const {
    const int64_t rest = int64_t{end_} - stream_.tell();
    return rest > 0 ? static_cast<int32_t>(rest) : 0;
}

bool BlockIn::room(int64_t length) {
    if (ok_ && length >= 0 && length <= left()) return true;
    ok_ = false;
    return false;
}

bool BlockIn::u8(uint8_t& value) {
    if (!room(1) || !stream_.readU8(value)) ok_ = false;
    return ok_;
}

bool BlockIn::i32(int32_t& value) {
    if (!room(4) || !stream_.readI32(value)) ok_ = false;
    return ok_;
}

bool BlockIn::u32(uint32_t& value) {
    if (!room(4) || !stream_.readU32(value)) ok_ = false;
    return ok_;
}

bool BlockIn::f32(float& value) {
    if (!room(4) || !stream_.readF32(value)) ok_ = false;
    return ok_;
}

bool BlockIn::u8To(int32_t& value) {
    uint8_t byte = 0;
    if (u8(byte)) value = byte;
    return ok_;
}

bool BlockIn::string(CString& text) {
    uint32_t length = 0;
    if (!u32(length) || !room(length)) return false;
    if (length == 0) {
        text = CString();
        return true;
    }
    const auto count = static_cast<int32_t>(length);
    const auto buffer = std::make_unique_for_overwrite<char[]>(length);
    if (stream_.read(buffer.get(), count) != count) {
        ok_ = false;
        return false;
    }
    text = CString(buffer.get(), count);
    return true;
}

bool BlockIn::bytes(void* buffer, int32_t length) {
    if (!room(length) || stream_.read(buffer, length) != length) ok_ = false;
    return ok_;
}

bool BlockIn::skip(int32_t length) {
    if (!room(length)) return false;
    stream_.seek(stream_.tell() + length, seekFromStart);
    return ok_;
}
