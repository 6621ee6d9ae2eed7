// Arbitrary bytes as a pack archive: the header and directory read and checked, every named entry read.
// An archive that opens must also survive being updated: a new entry, a purge and the directory written
// anew must give back every name with the same content.
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "hspc/store/ArchiveHandler.h"

namespace
{

// Updating copies the archive; beyond this the harness only reads.
constexpr size_t kLargestUpdatedArchive = size_t(1) << 20;

using Contents = std::map<std::string, std::vector<uint8_t>>;

Contents readAll(HSPC::ArchiveHandler& archive)
{
    Contents contents;
    for (const std::string& name : archive.names())
    {
        std::vector<uint8_t>& bytes = contents[name];
        archive.read(name,
                     [&](uint64_t size) -> uint8_t*
                     {
                         if (size > kLargestUpdatedArchive * 1032)
                             return nullptr;
                         bytes.resize(size_t(size));
                         return bytes.data();
                     });
    }
    return contents;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using HSPC::pack::FileMode;
    std::vector<uint8_t> file(data, data + size);
    Contents contents;
    {
        HSPC::ArchiveHandler archive(std::make_shared<HSPC::MemoryArchive>(file, FileMode::kRead), nullptr);
        if (!archive.isOpen())
            return 0;
        contents = readAll(archive);
    }
    if (size > kLargestUpdatedArchive)
        return 0;
    auto store = std::make_shared<HSPC::MemoryArchive>(std::move(file), FileMode::kUpdate);
    {
        HSPC::ArchiveHandler archive(store, nullptr);
        if (!archive.isOpen() || !archive.write("/fuzz-added", std::vector<uint8_t>{1, 2, 3}) || !archive.purge())
            __builtin_trap();
    }
    contents["/fuzz-added"] = {1, 2, 3};
    HSPC::ArchiveHandler reopened(std::make_shared<HSPC::MemoryArchive>(store->bytes(), FileMode::kRead), nullptr);
    if (!reopened.isOpen() || readAll(reopened) != contents)
        __builtin_trap();
    return 0;
}
