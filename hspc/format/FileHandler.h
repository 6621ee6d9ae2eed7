#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace HSPC
{

// The engine's one way to touch the disk: reads and writes of whole buffers at an offset. Offsets go with
// each call and no file position is kept, so a handler needs no seeks; one thread uses a handler at a time.
// Failures return false (or nothing) and leave their text in lastError().
class FileHandler
{
public:
    enum class Mode
    {
        kRead,       // an existing file
        kWrite,      // created, or emptied when it exists: a whole file is written anew
        kReadWrite,  // created when missing, its content kept: parts are updated at their offsets
        kUpdate,     // an existing file, read and updated in place; a missing one is a failure
        kReadWriteNew,  // created, or emptied when it exists, then read and written
        kAppend,     // refused
    };

    // One read or write call moves at most this many bytes; larger requests are refused, not split.
    static constexpr uint64_t kMaxRequestBytes = 0xFFFFFFFFull;

    // Paths are wide text, turned into UTF-8 for the file system, or UTF-8 already.
    FileHandler(const std::wstring& path, Mode mode);
    FileHandler(std::string utf8Path, Mode mode);
    ~FileHandler();
    FileHandler(const FileHandler&) = delete;
    FileHandler& operator=(const FileHandler&) = delete;
    FileHandler(FileHandler&& other) noexcept;
    FileHandler& operator=(FileHandler&& other) noexcept;

    bool isValid() const { return m_fd >= 0; }
    const std::string& path() const { return m_path; }

    std::optional<uint64_t> size();
    // True when all `size` bytes were read from `offset` into `buffer`.
    bool read(uint64_t offset, uint64_t size, void* buffer);
    // True when all `size` bytes of `buffer` were written at `offset`.
    bool write(uint64_t offset, const void* buffer, uint64_t size);
    // Cuts the file to `size` bytes or extends it with zeros.
    bool truncate(uint64_t size);

    // The text of the last failure, exactly as the engine's callers expect it; empty while all went well.
    const std::string& lastError() const { return m_lastError; }
    // The same with the file and the system's reason, for a log.
    std::string lastErrorDetail() const;

private:
    void open(Mode mode);
    void fail(std::string text, int errorNumber);
    void close() noexcept;

    std::string m_path;  // UTF-8
    int m_fd = -1;
    std::string m_lastError;
    int m_lastErrorNumber = 0;
};

// The forms in which the engine reads and writes a named blob. A read appends the blob's bytes to the vector.
using BlobReadFn = std::function<bool(const std::string& name, std::vector<uint8_t>& bytes)>;
using BlobWriteFn = std::function<bool(const std::string& name, const std::vector<uint8_t>& bytes)>;

// The forms in which a host supplies blobs: names in its wide text, the bytes of a read handed back whole.
using ClientReadFn = std::function<bool(const std::wstring& name, std::vector<uint8_t>& bytes)>;
using ClientWriteFn = std::function<bool(const std::wstring& name, const uint8_t* data, uint64_t size)>;

// Adapt a host's callback to the engine's form. The names go from UTF-8 to wide text; a missing callback and
// an exception thrown by the host's code both count as a failed transfer, so neither crosses into the engine.
BlobReadFn wrapReadFn(ClientReadFn clientRead);
BlobWriteFn wrapWriteFn(ClientWriteFn clientWrite);

}  // namespace HSPC
