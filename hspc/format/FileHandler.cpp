#include "hspc/format/FileHandler.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "hspc/format/Utf8Text.h"

namespace HSPC
{

namespace
{

int openFlags(FileHandler::Mode mode)
{
    switch (mode)
    {
        case FileHandler::Mode::kRead:
            return O_RDONLY;
        case FileHandler::Mode::kWrite:
            return O_WRONLY | O_CREAT | O_TRUNC;
        case FileHandler::Mode::kReadWrite:
            return O_RDWR | O_CREAT;
        case FileHandler::Mode::kUpdate:
            return O_RDWR;
        case FileHandler::Mode::kReadWriteNew:
            return O_RDWR | O_CREAT | O_TRUNC;
        case FileHandler::Mode::kAppend:
            break;
    }
    return -1;
}

// Moves `size` bytes at `offset` with pread or pwrite, which may move fewer bytes than asked (the kernel
// caps one call at about 2 GB) or be interrupted. Returns the errno of a failed call, ENODATA when the
// file ended first, 0 when all bytes moved.
template <typename Transfer>
int transferAll(uint64_t offset, uint64_t size, Transfer&& transfer)
{
    uint64_t done = 0;
    while (done < size)
    {
        const ssize_t moved = transfer(done, size - done, off_t(offset + done));
        if (moved < 0)
        {
            if (errno == EINTR)
            {
                continue;
            }
            return errno;
        }
        if (moved == 0)
        {
            return ENODATA;
        }
        done += uint64_t(moved);
    }
    return 0;
}

// Offsets beyond what off_t holds cannot be reached; the sum must not wrap either.
bool rangeFits(uint64_t offset, uint64_t size)
{
    constexpr uint64_t maxOffset = uint64_t(INT64_MAX);
    return offset <= maxOffset && size <= maxOffset - offset;
}

}  // namespace

FileHandler::FileHandler(const std::wstring& path, Mode mode) : FileHandler(toUtf8(path), mode) {}

FileHandler::FileHandler(std::string utf8Path, Mode mode) : m_path(std::move(utf8Path))
{
    open(mode);
}

FileHandler::~FileHandler()
{
    close();
}

FileHandler::FileHandler(FileHandler&& other) noexcept
    : m_path(std::move(other.m_path)),
      m_fd(std::exchange(other.m_fd, -1)),
      m_lastError(std::move(other.m_lastError)),
      m_lastErrorNumber(other.m_lastErrorNumber)
{
}

FileHandler& FileHandler::operator=(FileHandler&& other) noexcept
{
    if (this != &other)
    {
        close();
        m_path = std::move(other.m_path);
        m_fd = std::exchange(other.m_fd, -1);
        m_lastError = std::move(other.m_lastError);
        m_lastErrorNumber = other.m_lastErrorNumber;
    }
    return *this;
}

void FileHandler::open(Mode mode)
{
    const int flags = openFlags(mode);
    if (flags < 0)
    {
        fail(" FileHandler : append mode in windows not yet implemented.", 0);
        return;
    }
    int fd = -1;
    do
    {
        fd = ::open(m_path.c_str(), flags | O_CLOEXEC, 0666);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0)
    {
        const int errorNumber = errno;
        fail("File handler invalid. Windows system error code = " + std::to_string(errorNumber), errorNumber);
        return;
    }
    m_fd = fd;
}

void FileHandler::close() noexcept
{
    if (m_fd >= 0)
    {
        // A destructor cannot report; each write has already reported its own outcome.
        ::close(m_fd);
        m_fd = -1;
    }
}

void FileHandler::fail(std::string text, int errorNumber)
{
    m_lastError = std::move(text);
    m_lastErrorNumber = errorNumber;
}

std::string FileHandler::lastErrorDetail() const
{
    std::string detail = m_lastError + " (file: " + m_path;
    if (m_lastErrorNumber != 0)
    {
        detail += ", " + std::string(std::strerror(m_lastErrorNumber));
    }
    return detail + ")";
}

std::optional<uint64_t> FileHandler::size()
{
    struct stat status
    {
    };
    if (m_fd < 0 || ::fstat(m_fd, &status) != 0)
    {
        fail(" FileHandler : could not determine file size.", m_fd < 0 ? EBADF : errno);
        return std::nullopt;
    }
    return uint64_t(status.st_size);
}

bool FileHandler::read(uint64_t offset, uint64_t size, void* buffer)
{
    if (size > kMaxRequestBytes)
    {
        fail(" FileHandler : read : requested buffer size larger than 4GB.", 0);
        return false;
    }
    int errorNumber = EBADF;
    if (m_fd >= 0)
    {
        errorNumber = rangeFits(offset, size) ? 0 : EINVAL;
    }
    if (errorNumber == 0)
    {
        auto* bytes = static_cast<uint8_t*>(buffer);
        errorNumber = transferAll(offset, size,
                                  [&](uint64_t done, uint64_t left, off_t at)
                                  { return ::pread(m_fd, bytes + done, size_t(left), at); });
    }
    if (errorNumber != 0)
    {
        fail(" FileHandler : reading did not succeed.", errorNumber);
        return false;
    }
    return true;
}

bool FileHandler::write(uint64_t offset, const void* buffer, uint64_t size)
{
    if (size > kMaxRequestBytes)
    {
        fail(" FileHandler : write : requested buffer size larger than 4GB.", 0);
        return false;
    }
    int errorNumber = EBADF;
    if (m_fd >= 0)
    {
        errorNumber = rangeFits(offset, size) ? 0 : EINVAL;
    }
    if (errorNumber == 0)
    {
        const auto* bytes = static_cast<const uint8_t*>(buffer);
        errorNumber = transferAll(offset, size,
                                  [&](uint64_t done, uint64_t left, off_t at)
                                  { return ::pwrite(m_fd, bytes + done, size_t(left), at); });
    }
    if (errorNumber != 0)
    {
        fail(" FileHandler : writing did not succeed.", errorNumber);
        return false;
    }
    return true;
}

bool FileHandler::truncate(uint64_t size)
{
    int errorNumber = m_fd >= 0 ? 0 : EBADF;
    if (errorNumber == 0 && size > uint64_t(INT64_MAX))
    {
        errorNumber = EINVAL;
    }
    while (errorNumber == 0 && ::ftruncate(m_fd, off_t(size)) != 0)
    {
        errorNumber = errno == EINTR ? 0 : errno;
    }
    if (errorNumber != 0)
    {
        fail(" FileHandler : changing the file size did not succeed.", errorNumber);
        return false;
    }
    return true;
}

BlobReadFn wrapReadFn(ClientReadFn clientRead)
{
    return [clientRead = std::move(clientRead)](const std::string& name, std::vector<uint8_t>& bytes)
    {
        if (!clientRead)
        {
            return false;
        }
        try
        {
            std::vector<uint8_t> blob;
            if (!clientRead(fromUtf8(name), blob))
            {
                return false;
            }
            bytes.insert(bytes.end(), blob.begin(), blob.end());
            return true;
        }
        catch (...)
        {
            return false;
        }
    };
}

BlobWriteFn wrapWriteFn(ClientWriteFn clientWrite)
{
    return [clientWrite = std::move(clientWrite)](const std::string& name, const std::vector<uint8_t>& bytes)
    {
        if (!clientWrite)
        {
            return false;
        }
        try
        {
            return clientWrite(fromUtf8(name), bytes.data(), uint64_t(bytes.size()));
        }
        catch (...)
        {
            return false;
        }
    };
}

}  // namespace HSPC
