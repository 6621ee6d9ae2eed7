// A data set as files below one folder: the blob "/a/b.apr" is the file <folder>/a/b.apr.
#pragma once

#include <mutex>
#include <string>

#include "hspc/format/Loggers.h"
#include "hspc/store/RootStore.h"

namespace HSPC
{

class FolderWriter : public RootWriter
{
public:
    // `folder` is UTF-8; it and the folders of each name are created when a blob first needs them.
    explicit FolderWriter(std::string folder, LogFunction errorLogger = printError);

    bool write(const std::string& name, std::span<const uint8_t> bytes) override;
    std::string location() const override { return m_folder; }
    // False when there was no such blob.
    bool remove(const std::string& name) override;

private:
    bool createFoldersFor(const std::string& path);

    std::string m_folder;
    LogFunction m_errorLogger;
    // Writer threads of one conversion share the writer; creating the same folder from two of them at once
    // would make one of them fail.
    std::mutex m_folderCreation;
};

class FolderReader : public RootReader
{
public:
    explicit FolderReader(std::string folder, LogFunction errorLogger = printError);

    using RootReader::read;
    bool read(const std::string& name, const BlobAllocator& allocate) override;
    std::string location() const override { return m_folder; }

private:
    std::string m_folder;
    LogFunction m_errorLogger;
};

}  // namespace HSPC
