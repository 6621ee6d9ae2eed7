// Where an importer of raw records finds its bytes: a buffer in memory or a file. A source is read by one
// thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "hspc/format/Loggers.h"

namespace HSPC
{

class RecordSource
{
public:
    virtual ~RecordSource();
    virtual uint64_t byteCount() const = 0;
    // Reads `size` bytes from `offset` into `buffer`; false, with the reason on `errorLogger`, when they
    // could not all be read.
    virtual bool read(uint64_t offset, uint64_t size, uint8_t* buffer, const LogFunction& errorLogger) = 0;
};

// Records held in memory, shared with the caller and never copied as a whole.
std::shared_ptr<RecordSource> makeMemorySource(std::shared_ptr<const std::vector<uint8_t>> bytes);
// Records in a file (UTF-8 path); nothing, with the reason on `errorLogger`, when it cannot be opened.
std::shared_ptr<RecordSource> openFileSource(const std::string& path, const LogFunction& errorLogger);

}  // namespace HSPC
