// One open pack archive, shared by every thread that writes or reads blobs of the data set. One mutex
// guards every operation. Entries are only ever appended: a name written again gets a new copy at the end
// and reads that one; purge() closes the holes that replaced copies leave. The directory is written when
// the archive is closed.
#pragma once

#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "hspc/format/Loggers.h"
#include "hspc/store/ArchiveFile.h"
#include "hspc/store/NameIndex.h"
#include "hspc/store/PackDirectory.h"
#include "hspc/store/RootStore.h"

namespace HSPC
{

class ArchiveHandler
{
public:
    // With a store opened as kCreate this makes a new, empty archive with flags 0; otherwise it opens the
    // archive the store holds. Failures go to `errorLogger` and leave the handler closed.
    explicit ArchiveHandler(std::shared_ptr<pack::ArchiveInterface> file, LogFunction errorLogger = printError);
    // Closes the archive, writing its directory when it was opened for writing.
    ~ArchiveHandler();
    ArchiveHandler(const ArchiveHandler&) = delete;
    ArchiveHandler& operator=(const ArchiveHandler&) = delete;

    bool isOpen() const;
    std::string filename() const;
    pack::FileMode openMode() const;

    // Appends `bytes` as the newest copy of `name`. False when the archive is read only or closed, or the
    // bytes could not be written whole.
    bool write(const std::string& name, std::span<const uint8_t> bytes);
    // Reads the newest copy of `name` into the room that `allocate` gives. False for a missing or empty entry
    // and for one that cannot be read or does not decode.
    bool read(const std::string& name, const BlobAllocator& allocate);
    // Forgets `name`; its bytes stay until purge().
    bool remove(const std::string& name);
    // Moves every named entry down over the holes that replaced and removed copies left, and cuts the file.
    bool purge();
    // Writes the directory now and closes the archive; later operations fail. False when writing failed.
    bool close();

    // Entries in the file, replaced and removed copies included.
    size_t entryCount() const;
    // Every name that reads an entry, sorted.
    std::vector<std::string> names() const;

private:
    struct Entry
    {
        uint64_t offset;
        uint32_t storedSize;
    };

    bool create();
    bool open();
    bool writable() const;
    bool appendEntry(const std::string& name, std::span<const uint8_t> stored);
    bool readEntry(const Entry& entry, const BlobAllocator& allocate, std::string& error);
    bool moveEntry(uint64_t from, uint64_t to, uint64_t size);
    bool closeLocked();
    bool fail(const std::string& what);

    mutable std::mutex m_mutex;
    std::shared_ptr<pack::ArchiveInterface> m_file;
    LogFunction m_errorLogger;
    pack::Directory m_directory;
    std::vector<Entry> m_entries;
    NameIndex m_names;
    bool m_open = false;
    bool m_modified = false;
    // The file still holds the directory's overflow behind the data until the first new entry replaces it.
    bool m_cutBehindData = false;
};

}  // namespace HSPC
