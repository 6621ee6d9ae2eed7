// A data set is a set of named byte blobs ("/tree.hspc", "/hspcInfo.json", one blob per node, ...). These two
// interfaces hide where the blobs live: in a folder, in one pack archive, or behind a host's callbacks. Names
// are UTF-8 and start with a slash; one without gets it.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace HSPC
{

// Where a reader puts a blob: called once with the blob's size, it returns room for that many bytes, or
// nullptr to refuse. Lets any contiguous buffer type (a plain or a tracked vector) take a blob without a copy.
using BlobAllocator = std::function<uint8_t*(uint64_t size)>;

class RootWriter
{
public:
    virtual ~RootWriter() = default;
    // Stores `bytes` under `name`, replacing what was there. False when the blob could not be stored whole.
    virtual bool write(const std::string& name, std::span<const uint8_t> bytes) = 0;
    // The folder, the archive's file name, or a fixed text for a host's store.
    virtual std::string location() const = 0;
    virtual bool remove(const std::string& name) = 0;
};

class RootReader
{
public:
    virtual ~RootReader() = default;
    // Reads the blob `name` into the room that `allocate` gives. False for a missing or empty blob and for
    // one that could not be read whole; `allocate` may have been called all the same.
    virtual bool read(const std::string& name, const BlobAllocator& allocate) = 0;
    virtual std::string location() const = 0;

    // Appends the blob to `bytes`; on failure `bytes` is left as it was.
    bool read(const std::string& name, std::vector<uint8_t>& bytes) { return readAppending(name, bytes); }

    // The same for any buffer with size(), resize() and data() of bytes.
    template <typename Buffer>
    bool readAppending(const std::string& name, Buffer& bytes)
    {
        const size_t before = bytes.size();
        const bool complete = read(name,
                                   [&](uint64_t size) -> uint8_t*
                                   {
                                       if (size > bytes.max_size() - before)
                                       {
                                           return nullptr;
                                       }
                                       bytes.resize(before + size_t(size));
                                       return reinterpret_cast<uint8_t*>(bytes.data()) + before;
                                   });
        if (!complete)
        {
            bytes.resize(before);
        }
        return complete;
    }
};

// The name as it is stored: with a leading slash.
std::string normalizedBlobName(const std::string& name);

}  // namespace HSPC
