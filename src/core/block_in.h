#pragma once
// Reading one block's payload without trusting it: every read is checked against the block's end and
// against what the stream really delivers. The first read that fails marks the block as damaged; it and
// every later read of the block leave their destinations as they were, so the loader keeps what was
// read before the damage and the defaults after it.

#include <cstdint>

#include "core/stream.h"

class BlockIn {
public:
    BlockIn(CStream& stream, int32_t end) : stream_(stream), end_(end) {}

    bool u8(uint8_t& value);
    bool i32(int32_t& value);
    bool u32(uint32_t& value);
    bool f32(float& value);
    // A byte widened into a whole number.
    bool u8To(int32_t& value);
    // u32 length and the bytes; a length beyond the block fails.
    bool string(CString& text);
    bool bytes(void* buffer, int32_t length);
    // Moves over bytes the format fills with zeros.
    bool skip(int32_t length);

    bool ok() const { return ok_; }
    int32_t left() const;

private:
    bool room(int64_t length);

    CStream& stream_;
    int32_t end_;
    bool ok_ = true;
};
