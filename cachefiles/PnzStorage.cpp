#include "cachefiles/PnzStorage.h"

#include <cerrno>

#include "cachefiles/FileDescriptor.h"
#include "cachefiles/FileWriter.h"
#include "cachefiles/NodeFileErrors.h"
#include "core/StringConversion.h"

namespace pc_preprocess
{

std::span<const uint8_t> loadPnz(const std::wstring& pnz, const std::string& errorPrefix, PnzCoder& coder,
                                 uint64_t expectedSize)
{
    // A node file is small: one read into a buffer that is kept costs less than mapping it.
    std::vector<uint8_t>& bytes = coder.fileBytes();
    try
    {
        const FileDescriptor file = FileDescriptor::openForReading(toPath(pnz));
        bytes.resize(file.size());
        file.readExactly(0, bytes);
    }
    catch (const FileError& e)
    {
        if (e.errorNumber() == ENOENT)
            throw std::runtime_error(errorPrefix + ": File " + ws2s(pnz) + " does not exist.");
        throw openFailure(errorPrefix, pnz);
    }
    return coder.inflate(bytes, maxInflatedSize(bytes.size()), expectedSize);
}

uint64_t storePnz(const std::wstring& pnz, std::span<const uint8_t> inflated, const std::string& who,
                  PnzCoder& coder)
{
    const std::span<const uint8_t> compressed = coder.deflate(inflated);
    reportWriteFailure(who, pnz, [&] { writeWholeFile(toPath(pnz), compressed); });
    return compressed.size();
}

}  // namespace pc_preprocess
