#include "cachefiles/FileDescriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace pc_preprocess
{

namespace
{
// A single read or write call moves at most this much; Linux caps a call just below 2 GB anyway.
constexpr size_t kMaxTransfer = size_t(1) << 30;
}  // namespace

FileError::FileError(const std::string& call, const std::filesystem::path& path, int errorNumber)
    : std::runtime_error(call + " " + path.string() + ": " + std::strerror(errorNumber)),
      m_errorNumber(errorNumber)
{
}

FileDescriptor::FileDescriptor(int fd, std::filesystem::path path) : m_fd(fd), m_path(std::move(path)) {}

FileDescriptor::~FileDescriptor()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

FileDescriptor::FileDescriptor(FileDescriptor&& other) noexcept
    : m_fd(std::exchange(other.m_fd, -1)), m_path(std::move(other.m_path))
{
}

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept
{
    if (this != &other)
    {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = std::exchange(other.m_fd, -1);
        m_path = std::move(other.m_path);
    }
    return *this;
}

FileDescriptor FileDescriptor::openRegular(const std::filesystem::path& path, int flags)
{
    const int fd = ::open(path.c_str(), flags | O_CLOEXEC);
    if (fd < 0)
        throw FileError("open", path, errno);
    FileDescriptor file(fd, path);
    // A folder opens for reading too; refuse it here rather than with a puzzling error from read or mmap.
    struct stat status;
    if (::fstat(fd, &status) != 0)
        throw FileError("fstat", path, errno);
    if (!S_ISREG(status.st_mode))
        throw FileError("open", path, S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
    return file;
}

FileDescriptor FileDescriptor::openForReading(const std::filesystem::path& path)
{
    return openRegular(path, O_RDONLY);
}

FileDescriptor FileDescriptor::openForUpdate(const std::filesystem::path& path)
{
    return openRegular(path, O_RDWR);
}

FileDescriptor FileDescriptor::createTruncated(const std::filesystem::path& path)
{
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0)
        throw FileError("open", path, errno);
    return FileDescriptor(fd, path);
}

uint64_t FileDescriptor::size() const
{
    struct stat status;
    if (::fstat(m_fd, &status) != 0)
        throw FileError("fstat", m_path, errno);
    return static_cast<uint64_t>(status.st_size);
}

template <typename Transfer>
void FileDescriptor::transferAll(size_t size, const char* call, int errorWhenStuck, Transfer&& transfer) const
{
    size_t done = 0;
    while (done < size)
    {
        const ssize_t moved = transfer(done, std::min(size - done, kMaxTransfer));
        if (moved < 0 && errno == EINTR)
            continue;
        if (moved < 0)
            throw FileError(call, m_path, errno);
        if (moved == 0)  // the end of the file for a read, no room left for a write
            throw FileError(call, m_path, errorWhenStuck);
        done += static_cast<size_t>(moved);
    }
}

void FileDescriptor::readExactly(uint64_t offset, std::span<uint8_t> bytes) const
{
    transferAll(bytes.size(), "read", ENODATA,
                [&](size_t done, size_t chunk)
                { return ::pread(m_fd, bytes.data() + done, chunk, static_cast<off_t>(offset + done)); });
}

void FileDescriptor::writeAllAt(uint64_t offset, std::span<const uint8_t> bytes)
{
    transferAll(bytes.size(), "write", ENOSPC,
                [&](size_t done, size_t chunk)
                { return ::pwrite(m_fd, bytes.data() + done, chunk, static_cast<off_t>(offset + done)); });
}

void FileDescriptor::reserve(uint64_t offset, uint64_t length)
{
    if (length == 0)
        return;
    // posix_fallocate returns the error number instead of setting errno.
    int result;
    do
        result = ::posix_fallocate(m_fd, static_cast<off_t>(offset), static_cast<off_t>(length));
    while (result == EINTR);
    if (result != 0)
        throw FileError("fallocate", m_path, result);
}

bool FileDescriptor::discard(uint64_t offset, uint64_t length)
{
    if (length == 0)
        return true;
    int result;
    do
        result = ::fallocate(m_fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset),
                             static_cast<off_t>(length));
    while (result != 0 && errno == EINTR);
    return result == 0;
}

void FileDescriptor::close()
{
    if (m_fd < 0)
        return;
    const int fd = std::exchange(m_fd, -1);
    // The descriptor is gone after close() whatever it returns, so it is never retried.
    if (::close(fd) != 0 && errno != EINTR)
        throw FileError("close", m_path, errno);
}

}  // namespace pc_preprocess
