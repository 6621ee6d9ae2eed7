// A data set behind a host's callbacks: the host decides where the blobs live.
#pragma once

#include <functional>
#include <string>

#include "hspc/format/FileHandler.h"
#include "hspc/format/Loggers.h"
#include "hspc/store/RootStore.h"

namespace HSPC
{

using BlobRemoveFn = std::function<bool(const std::string& name)>;

class CustomWriter : public RootWriter
{
public:
    // `remove` may be empty: removing then fails with a message, as only the query framework needs it.
    explicit CustomWriter(BlobWriteFn write, BlobRemoveFn remove = {}, LogFunction errorLogger = printError);

    bool write(const std::string& name, std::span<const uint8_t> bytes) override;
    std::string location() const override { return "custom-writer"; }
    bool remove(const std::string& name) override;

private:
    BlobWriteFn m_write;
    BlobRemoveFn m_remove;
    LogFunction m_errorLogger;
};

// The writer a host supplies for a data set that goes into one archive of its own making.
class CustomArchiveWriter : public CustomWriter
{
public:
    explicit CustomArchiveWriter(BlobWriteFn write, LogFunction errorLogger = printError);
    std::string location() const override { return "custom-archive-writer"; }
};

class CustomReader : public RootReader
{
public:
    explicit CustomReader(BlobReadFn read);

    using RootReader::read;
    bool read(const std::string& name, const BlobAllocator& allocate) override;
    std::string location() const override { return "custom-reader"; }

private:
    BlobReadFn m_read;
};

}  // namespace HSPC
