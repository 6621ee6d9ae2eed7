#include "cachefiles/PnzStorage.h"

#include <cerrno>

#include "cachefiles/FileWriter.h"
#include "cachefiles/MappedFile.h"
#include "cachefiles/NodeFileErrors.h"
#include "cachefiles/PnzCodec.h"
#include "core/StringConversion.h"

namespace pc_preprocess
{

std::vector<uint8_t> loadPnz(const std::wstring& pnz, const std::string& errorPrefix)
{
    MappedFile file;
    try
    {
        file = MappedFile::openReadOnly(toPath(pnz));
    }
    catch (const FileError& e)
    {
        if (e.errorNumber() == ENOENT)
            throw std::runtime_error(errorPrefix + ": File " + ws2s(pnz) + " does not exist.");
        throw openFailure(errorPrefix, pnz);
    }
    return inflatePnz(file.bytes(), maxInflatedSize(file.bytes().size()));
}

uint64_t storePnz(const std::wstring& pnz, std::span<const uint8_t> inflated, const std::string& who)
{
    const std::vector<uint8_t> compressed = deflatePnz(inflated);
    reportWriteFailure(who, pnz, [&] { writeWholeFile(toPath(pnz), compressed); });
    return compressed.size();
}

}  // namespace pc_preprocess
