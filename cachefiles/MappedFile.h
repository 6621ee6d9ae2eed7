#pragma once

#include <cstdint>
#include <filesystem>
#include <span>

namespace pc_preprocess
{

// A whole existing file mapped read-only, unmapped when the owner goes. Failures are FileErrors.
// Writers do not map: encoding into a bounded buffer and writing it (FileWriter) measured about three times
// faster than storing into a fresh shared mapping, whose every page costs a fault and a zero fill first.
class MappedFile
{
public:
    MappedFile() = default;
    ~MappedFile();
    MappedFile(MappedFile&& other) noexcept;
    MappedFile& operator=(MappedFile&& other) noexcept;
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;

    // An empty file gives an empty span without any mapping, since mmap refuses a length of 0.
    static MappedFile openReadOnly(const std::filesystem::path& path);

    std::span<const uint8_t> bytes() const { return {m_data, m_size}; }

private:
    void release() noexcept;

    const uint8_t* m_data = nullptr;
    size_t m_size = 0;
};

}  // namespace pc_preprocess
