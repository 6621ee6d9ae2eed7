// A data set in one pack archive on disk. A writer and a reader may share one ArchiveHandler, so that what
// a conversion wrote can be read back before the archive is closed; the archive closes, and its directory
// is written, when the last of them lets go of the handler.
#pragma once

#include <memory>
#include <string>

#include "hspc/format/Loggers.h"
#include "hspc/store/ArchiveHandler.h"
#include "hspc/store/RootStore.h"

namespace HSPC
{

// Opens the archive at `path` (UTF-8) in `mode`; the handler reports on `errorLogger` and is closed when
// that failed.
std::shared_ptr<ArchiveHandler> openArchive(const std::string& path, pack::FileMode mode,
                                            LogFunction errorLogger = printError);

class DiskWriteArchive : public RootWriter
{
public:
    explicit DiskWriteArchive(std::shared_ptr<ArchiveHandler> handler);
    // A new archive at `path`, replacing any file there.
    explicit DiskWriteArchive(const std::string& path, LogFunction errorLogger = printError);

    bool write(const std::string& name, std::span<const uint8_t> bytes) override;
    std::string location() const override { return m_handler->filename(); }
    bool remove(const std::string& name) override { return m_handler->remove(name); }

    const std::shared_ptr<ArchiveHandler>& handler() const { return m_handler; }

private:
    std::shared_ptr<ArchiveHandler> m_handler;
};

class DiskReadArchive : public RootReader
{
public:
    explicit DiskReadArchive(std::shared_ptr<ArchiveHandler> handler);
    explicit DiskReadArchive(const std::string& path, LogFunction errorLogger = printError);

    using RootReader::read;
    bool read(const std::string& name, const BlobAllocator& allocate) override;
    std::string location() const override { return m_handler->filename(); }

    const std::shared_ptr<ArchiveHandler>& handler() const { return m_handler; }

private:
    std::shared_ptr<ArchiveHandler> m_handler;
};

// The writer that a conversion with the archive option and no archive callback writes through:
// <outputPath>/<treeName>.hspc.pack.
std::shared_ptr<RootWriter> makeDefaultArchiveWriter(const std::string& outputPath, const std::string& treeName,
                                                     LogFunction errorLogger);

}  // namespace HSPC
