#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <stdexcept>
#include <string>

namespace pc_preprocess
{

// A failed system call of the file layer, with the call, the file and the system's reason. The node-file
// functions turn it into their own fixed messages; it never leaves the library.
class FileError : public std::runtime_error
{
public:
    FileError(const std::string& call, const std::filesystem::path& path, int errorNumber);
    int errorNumber() const { return m_errorNumber; }

private:
    int m_errorNumber;
};

// One open file descriptor, closed when the owner goes. Every operation reports failure as a FileError; a
// descriptor that was written to should be closed with close(), which reports a failed close as well.
class FileDescriptor
{
public:
    FileDescriptor() = default;
    ~FileDescriptor();
    FileDescriptor(FileDescriptor&& other) noexcept;
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    // An existing regular file for reading.
    static FileDescriptor openForReading(const std::filesystem::path& path);
    // An existing regular file for reading and writing, without truncating it.
    static FileDescriptor openForUpdate(const std::filesystem::path& path);
    // Creates the file or truncates it to zero length.
    static FileDescriptor createTruncated(const std::filesystem::path& path);

    int get() const { return m_fd; }
    const std::filesystem::path& path() const { return m_path; }
    uint64_t size() const;

    // Reads exactly bytes.size() bytes at offset; a file that ends before is an error (ENODATA).
    void readExactly(uint64_t offset, std::span<uint8_t> bytes) const;
    void writeAllAt(uint64_t offset, std::span<const uint8_t> bytes);
    // Allocates the blocks of [offset, offset + length) now: running out of space fails here, before a byte
    // of the content is written.
    void reserve(uint64_t offset, uint64_t length);
    // Gives the blocks and the cached pages of [offset, offset + length) back to the system, for a file that
    // is consumed as it is read: the size stays, the range reads as zeros. Needs a descriptor open for
    // writing. False where the file system cannot do it; the bytes then stay until the file is deleted.
    bool discard(uint64_t offset, uint64_t length);
    void close();

private:
    FileDescriptor(int fd, std::filesystem::path path);
    static FileDescriptor openRegular(const std::filesystem::path& path, int flags);
    // Calls transfer(done, chunk) until size bytes are moved, retrying interrupted and partial calls.
    template <typename Transfer>
    void transferAll(size_t size, const char* call, int errorWhenStuck, Transfer&& transfer) const;

    int m_fd = -1;
    std::filesystem::path m_path;
};

}  // namespace pc_preprocess
