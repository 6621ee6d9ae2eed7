#include "hspc/store/DiskArchive.h"

namespace HSPC
{

std::shared_ptr<ArchiveHandler> openArchive(const std::string& path, pack::FileMode mode, LogFunction errorLogger)
{
    return std::make_shared<ArchiveHandler>(std::make_shared<FileInterface>(path, mode), std::move(errorLogger));
}

DiskWriteArchive::DiskWriteArchive(std::shared_ptr<ArchiveHandler> handler) : m_handler(std::move(handler)) {}

DiskWriteArchive::DiskWriteArchive(const std::string& path, LogFunction errorLogger)
    : m_handler(openArchive(path, pack::FileMode::kCreate, std::move(errorLogger)))
{
}

bool DiskWriteArchive::write(const std::string& name, std::span<const uint8_t> bytes)
{
    return m_handler->write(name, bytes);
}

DiskReadArchive::DiskReadArchive(std::shared_ptr<ArchiveHandler> handler) : m_handler(std::move(handler)) {}

DiskReadArchive::DiskReadArchive(const std::string& path, LogFunction errorLogger)
    : m_handler(openArchive(path, pack::FileMode::kRead, std::move(errorLogger)))
{
}

bool DiskReadArchive::read(const std::string& name, const BlobAllocator& allocate)
{
    return m_handler->read(name, allocate);
}

std::shared_ptr<RootWriter> makeDefaultArchiveWriter(const std::string& outputPath, const std::string& treeName,
                                                     LogFunction errorLogger)
{
    return std::make_shared<DiskWriteArchive>(outputPath + "/" + treeName + ".hspc.pack", std::move(errorLogger));
}

}  // namespace HSPC
