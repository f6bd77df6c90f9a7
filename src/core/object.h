#pragma once
// CObject: the root of every model object. kind and subKind are the program's own type tags,
// fixed by the constructor, so that a list walk can tell what an item is without RTTI.

#include <atomic>
#include <cstdint>

#include "core/string.h"

class CObject {
public:
    explicit CObject(int32_t kind = 0, int32_t subKind = 0) : kind(kind), subKind(subKind) {}
    CObject(const CObject&) = delete;
    CObject& operator=(const CObject&) = delete;
    virtual ~CObject() = default;

    virtual CString getName() const;
    virtual void setName(CString newName);

    CString name;
    const int32_t kind;
    const int32_t subKind;
    // Class-defined bit set. Atomic because the engine's busy bit is taken by test-and-set
    // when two workers reach one component.
    std::atomic<uint32_t> flags{0};
};
