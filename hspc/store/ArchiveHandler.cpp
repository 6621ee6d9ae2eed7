#include "hspc/store/ArchiveHandler.h"

#include <algorithm>
#include <cstring>
#include <numeric>

#include "hspc/format/Utf8Text.h"
#include "hspc/store/PackCodec.h"
#include "hspc/store/RadixNames.h"

namespace HSPC
{

namespace
{

// Entries move down in pieces of this size during a purge.
constexpr uint64_t kMoveChunk = uint64_t(1) << 20;

}  // namespace

ArchiveHandler::ArchiveHandler(std::shared_ptr<pack::ArchiveInterface> file, LogFunction errorLogger)
    : m_file(std::move(file)), m_errorLogger(std::move(errorLogger))
{
    if (!m_file || !m_file->isValid())
    {
        fail("cannot open the archive: " + (m_file ? m_file->lastError() : std::string("no file")));
        return;
    }
    m_open = m_file->mode() == pack::FileMode::kCreate ? create() : open();
}

ArchiveHandler::~ArchiveHandler()
{
    close();
}

bool ArchiveHandler::fail(const std::string& what)
{
    if (m_errorLogger)
    {
        m_errorLogger("ArchiveHandler: " + (m_file ? m_file->filename() : std::string()) + ": " + what);
    }
    return false;
}

bool ArchiveHandler::create()
{
    m_directory = pack::Directory();
    m_directory.dataEnd = m_directory.header.dataStart;
    uint8_t header[pack::kHeaderSize];
    pack::storeHeader(m_directory.header, header);
    if (m_file->Write(header, 0, pack::kHeaderSize) != pack::kHeaderSize)
    {
        return fail("cannot write a new archive: " + m_file->lastError());
    }
    m_cutBehindData = true;
    m_modified = true;
    return true;
}

bool ArchiveHandler::open()
{
    std::string error;
    if (!pack::readDirectory(*m_file, m_directory, error))
    {
        return fail(error);
    }
    m_entries.reserve(m_directory.storedSizes.size());
    for (size_t i = 0; i < m_directory.storedSizes.size(); ++i)
    {
        m_entries.push_back({m_directory.offsets[i], m_directory.storedSizes[i]});
    }
    m_names.assign(std::move(m_directory.names));
    m_directory.storedSizes.clear();
    m_directory.offsets.clear();
    m_directory.names.clear();
    m_cutBehindData = true;
    return true;
}

bool ArchiveHandler::isOpen() const
{
    std::lock_guard lock(m_mutex);
    return m_open;
}

std::string ArchiveHandler::filename() const
{
    return m_file ? m_file->filename() : std::string();
}

pack::FileMode ArchiveHandler::openMode() const
{
    return m_file ? m_file->mode() : pack::FileMode::kRead;
}

size_t ArchiveHandler::entryCount() const
{
    std::lock_guard lock(m_mutex);
    return m_entries.size();
}

std::vector<std::string> ArchiveHandler::names() const
{
    std::lock_guard lock(m_mutex);
    std::vector<std::string> names;
    names.reserve(m_names.size());
    for (const auto& named : m_names.names())
    {
        names.push_back(named.first);
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool ArchiveHandler::writable() const
{
    return m_open && m_file->mode() != pack::FileMode::kRead;
}

bool ArchiveHandler::write(const std::string& name, std::span<const uint8_t> bytes)
{
    std::lock_guard lock(m_mutex);
    const std::string stored = normalizedBlobName(name);
    if (!writable())
    {
        return fail("cannot write " + stored + ": the archive is not open for writing");
    }
    if (stored.find('\0') != std::string::npos || toUtf16(stored).size() > pack::kLongestName)
    {
        return fail("cannot write " + stored + ": a name holds a 0 character or is too long");
    }
    if (bytes.size() > UINT32_MAX || m_entries.size() >= UINT32_MAX)
    {
        return fail("cannot write " + stored + ": the archive holds no more than 4 GB per entry and 2^32 entries");
    }
    if ((m_directory.header.flags & pack::kFlagCompressed) == 0)
    {
        return appendEntry(stored, bytes);
    }
    std::vector<uint8_t> compressed;
    if (!pack::compressBlock(bytes, compressed) || compressed.size() > UINT32_MAX)
    {
        return fail("cannot compress " + stored);
    }
    return appendEntry(stored, compressed);
}

bool ArchiveHandler::appendEntry(const std::string& name, std::span<const uint8_t> stored)
{
    const pack::Header& header = m_directory.header;
    // The first new entry goes where the directory's overflow lay; that is written anew on closing.
    if (m_cutBehindData && !m_file->Truncate(m_directory.dataEnd))
    {
        return fail("cannot write " + name + ": " + m_file->lastError());
    }
    m_cutBehindData = false;
    const uint64_t offset = m_directory.dataEnd;
    bool written = stored.empty() || m_file->Write(stored.data(), offset, stored.size()) == stored.size();
    if (written && header.trailerSize != 0)
    {
        const std::vector<uint8_t> trailer = pack::makeTrailer(header.flags, name, stored);
        written = m_file->Write(trailer.data(), offset + stored.size(), trailer.size()) == trailer.size();
    }
    if (!written)
    {
        return fail("cannot write " + name + ": " + m_file->lastError());
    }
    m_names.set(name, uint32_t(m_entries.size()));
    m_entries.push_back({offset, uint32_t(stored.size())});
    m_directory.dataEnd = offset + stored.size() + header.trailerSize;
    m_modified = true;
    return true;
}

bool ArchiveHandler::read(const std::string& name, const BlobAllocator& allocate)
{
    std::lock_guard lock(m_mutex);
    const std::string stored = normalizedBlobName(name);
    if (!m_open)
    {
        return fail("cannot read " + stored + ": the archive is not open");
    }
    const std::optional<uint32_t> entry = m_names.find(stored);
    if (!entry || m_entries[*entry].storedSize == 0)
    {
        return false;
    }
    std::string error;
    return readEntry(m_entries[*entry], allocate, error) || fail("cannot read " + stored + ": " + error);
}

bool ArchiveHandler::readEntry(const Entry& entry, const BlobAllocator& allocate, std::string& error)
{
    const pack::Header& header = m_directory.header;
    if (header.flags == 0)
    {
        // The common case reads straight into the caller's buffer.
        uint8_t* room = allocate(entry.storedSize);
        if (room == nullptr || m_file->Read(room, entry.offset, entry.storedSize) != entry.storedSize)
        {
            error = room == nullptr ? "no room for its bytes" : m_file->lastError();
            return false;
        }
        return true;
    }
    std::vector<uint8_t> bytes(size_t(entry.storedSize) + header.trailerSize);
    if (m_file->Read(bytes.data(), entry.offset, bytes.size()) != bytes.size())
    {
        error = m_file->lastError();
        return false;
    }
    const std::span<const uint8_t> stored = std::span<const uint8_t>(bytes).first(entry.storedSize);
    if (header.trailerSize != 0 &&
        !pack::checkTrailer(header.flags, std::span<const uint8_t>(bytes).subspan(entry.storedSize), stored, error))
    {
        return false;
    }
    if ((header.flags & pack::kFlagCompressed) != 0)
    {
        return pack::inflatePrefixed(stored, allocate, error);
    }
    uint8_t* room = allocate(stored.size());
    if (room == nullptr)
    {
        error = "no room for its bytes";
        return false;
    }
    std::memcpy(room, stored.data(), stored.size());
    return true;
}

bool ArchiveHandler::remove(const std::string& name)
{
    std::lock_guard lock(m_mutex);
    if (!writable() || !m_names.erase(normalizedBlobName(name)))
    {
        return false;
    }
    m_modified = true;
    return true;
}

bool ArchiveHandler::moveEntry(uint64_t from, uint64_t to, uint64_t size)
{
    // Entries only move down, and in rising order, so every piece is read before anything overwrites it.
    std::vector<uint8_t> piece(size_t(std::min(size, kMoveChunk)));
    for (uint64_t done = 0; done < size;)
    {
        const uint64_t length = std::min(size - done, kMoveChunk);
        if (m_file->Read(piece.data(), from + done, length) != length ||
            m_file->Write(piece.data(), to + done, length) != length)
        {
            return false;
        }
        done += length;
    }
    return true;
}

bool ArchiveHandler::purge()
{
    std::lock_guard lock(m_mutex);
    if (!writable())
    {
        return fail("cannot purge: the archive is not open for writing");
    }
    constexpr uint32_t kUnnamed = UINT32_MAX;
    std::vector<uint32_t> renumbered(m_entries.size(), kUnnamed);
    for (const auto& named : m_names.names())
    {
        renumbered[named.second] = 0;
    }
    std::vector<uint32_t> byOffset(m_entries.size());
    std::iota(byOffset.begin(), byOffset.end(), 0u);
    std::sort(byOffset.begin(), byOffset.end(),
              [&](uint32_t a, uint32_t b) { return m_entries[a].offset < m_entries[b].offset; });

    const uint32_t trailerSize = m_directory.header.trailerSize;
    std::vector<Entry> kept;
    uint64_t end = m_directory.header.dataStart;
    for (const uint32_t index : byOffset)
    {
        if (renumbered[index] == kUnnamed)
        {
            continue;
        }
        const Entry& entry = m_entries[index];
        const uint64_t size = uint64_t(entry.storedSize) + trailerSize;
        if (entry.offset != end && !moveEntry(entry.offset, end, size))
        {
            m_open = false;
            return fail("purge failed while moving entries, the archive is closed: " + m_file->lastError());
        }
        renumbered[index] = uint32_t(kept.size());
        kept.push_back({end, entry.storedSize});
        end += size;
    }
    m_entries = std::move(kept);
    m_names.renumber([&](uint32_t entry) { return renumbered[entry]; });
    m_directory.dataEnd = end;
    m_modified = true;
    if (!m_file->Truncate(end))
    {
        return fail("purge could not cut the file: " + m_file->lastError());
    }
    m_cutBehindData = false;
    return true;
}

bool ArchiveHandler::close()
{
    std::lock_guard lock(m_mutex);
    return closeLocked();
}

bool ArchiveHandler::closeLocked()
{
    if (!m_open)
    {
        return true;
    }
    const bool writeDirectory = writable() && m_modified;
    m_open = false;
    if (!writeDirectory)
    {
        return true;
    }
    m_directory.storedSizes.reserve(m_entries.size());
    for (const Entry& entry : m_entries)
    {
        m_directory.storedSizes.push_back(entry.storedSize);
    }
    m_directory.names = m_names.names();
    std::string error;
    return pack::writeDirectory(*m_file, m_directory, error) || fail(error);
}

}  // namespace HSPC
