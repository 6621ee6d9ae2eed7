// Reading little-endian fields one after the other out of a byte buffer that came from a file. The reader
// remembers whether any field ran past the end, so that a parser can read a whole group of fields and check
// once; a field that does not fit reads as zero and leaves the position where it was.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "hspc/format/LittleEndian.h"

namespace HSPC
{

class FieldReader
{
public:
    explicit FieldReader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

    template <typename T>
    T read()
    {
        if (!has(sizeof(T)))
        {
            return T{};
        }
        const T value = little_endian::load<T>(bytes_.data() + position_);
        position_ += sizeof(T);
        return value;
    }

    bool readText(size_t length, std::string& text)
    {
        if (!has(length))
        {
            return false;
        }
        text.assign(reinterpret_cast<const char*>(bytes_.data() + position_), length);
        position_ += length;
        return true;
    }

    // The next `length` bytes, without copying; empty and failed when fewer remain.
    std::span<const uint8_t> readBytes(size_t length)
    {
        if (!has(length))
        {
            return {};
        }
        const std::span<const uint8_t> bytes = bytes_.subspan(position_, length);
        position_ += length;
        return bytes;
    }

    // Whether `count` items of `itemSize` bytes each can still be read: the test to pass before anything is
    // sized by a count that a file states.
    bool canHold(uint64_t count, uint64_t itemSize) const
    {
        return ok_ && (itemSize == 0 || count <= remaining() / itemSize);
    }

    bool ok() const { return ok_; }
    size_t position() const { return position_; }
    size_t remaining() const { return bytes_.size() - position_; }

private:
    bool has(size_t count)
    {
        ok_ = ok_ && count <= bytes_.size() - position_;
        return ok_;
    }

    std::span<const uint8_t> bytes_;
    size_t position_ = 0;
    bool ok_ = true;
};

}  // namespace HSPC
