#include "e57/ImageFile.h"

#include <cstring>

#include "e57/E57Exception.h"
#include "e57/PagedFile.h"
#include "e57/XmlSection.h"

namespace e57
{

namespace
{

// The file header, the first 48 bytes of page 0:
//
//   offset  size  content
//   0       8     "ASTM-E57"
//   8       4     major version (1)
//   12      4     minor version (0; later minor versions only add to the format)
//   16      8     the file's physical length
//   24      8     physical offset of the XML section
//   32      8     logical length of the XML section
//   40      8     page size (1024)
constexpr size_t kHeaderSize = 48;
constexpr char kSignature[8] = {'A', 'S', 'T', 'M', '-', 'E', '5', '7'};
// The XML section is read whole; no real file comes near this.
constexpr uint64_t kMaxXmlBytes = uint64_t{1} << 30;

template <typename T>
T load(const uint8_t* bytes)
{
    T value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

// The blob section header, before the blob's bytes:
//
//   offset  size  content
//   0       1     section id, 0 for a blob
//   1       7     reserved
//   8       8     the section's logical length
constexpr size_t kBlobHeaderSize = 16;

}  // namespace

ImageFile::ImageFile(const std::filesystem::path& path) : ImageFile(std::make_unique<PagedFile>(path)) {}

ImageFile::ImageFile(std::unique_ptr<PagedFile> pages) : m_pages(std::move(pages))
{
    const PagedFile& file = *m_pages;
    const std::string& name = file.name();
    uint8_t header[kHeaderSize] = {};
    file.readPhysical(0, header, std::min<uint64_t>(kHeaderSize, file.physicalSize()));
    if (file.physicalSize() < sizeof kSignature || std::memcmp(header, kSignature, sizeof kSignature) != 0)
        E57_THROW(ErrorCode::BadFileSignature, name + " does not start with \"ASTM-E57\"");
    if (file.physicalSize() < kHeaderSize)
        E57_THROW(ErrorCode::BadFileLength,
                  name + " ends within its header, after " + std::to_string(file.physicalSize()) + " bytes");
    const auto major = load<uint32_t>(header + 8);
    const auto minor = load<uint32_t>(header + 12);
    if (major != 1)
        E57_THROW(ErrorCode::UnknownFileVersion, name + " has format version " + std::to_string(major) + "." +
                                                     std::to_string(minor) +
                                                     "; only files of version 1 (1.0, 1.1, ...) can be read");
    const auto declaredLength = load<uint64_t>(header + 16);
    const auto xmlPhysicalOffset = load<uint64_t>(header + 24);
    const auto xmlLength = load<uint64_t>(header + 32);
    const auto pageSize = load<uint64_t>(header + 40);
    if (pageSize != kPageSize)
        E57_THROW(ErrorCode::BadFileLength, name + " has pages of " + std::to_string(pageSize) +
                                                " bytes, not " + std::to_string(kPageSize));
    if (declaredLength != file.physicalSize() || file.physicalSize() % kPageSize != 0)
        E57_THROW(ErrorCode::BadFileLength, name + " has " + std::to_string(file.physicalSize()) +
                                                " bytes; its header says " + std::to_string(declaredLength) +
                                                ", a whole number of " + std::to_string(kPageSize) +
                                                "-byte pages");
    if (isChecksumOffset(xmlPhysicalOffset) || xmlLength > kMaxXmlBytes ||
        physicalToLogical(xmlPhysicalOffset) > file.logicalSize() ||
        xmlLength > file.logicalSize() - physicalToLogical(xmlPhysicalOffset))
        E57_THROW(ErrorCode::BadFileLength, name + ": the XML section of " + std::to_string(xmlLength) +
                                                " bytes at offset " + std::to_string(xmlPhysicalOffset) +
                                                " does not fit the file");

    PageReader reader(file);
    // The header's own page: a corrupt page 0 is refused even when no section starts in it.
    reader.read(0, header, kHeaderSize);
    std::string xml(static_cast<size_t>(xmlLength), '\0');
    reader.read(physicalToLogical(xmlPhysicalOffset), xml.data(), xml.size());
    XmlTree tree = parseXmlSection(xml, name);
    m_root = std::move(tree.root);
    m_namespaces = std::move(tree.namespaces);
}

ImageFile::~ImageFile() = default;

uint64_t ImageFile::fileSize() const
{
    return m_pages->physicalSize();
}

std::vector<uint8_t> ImageFile::readBlob(const Node& blob, uint64_t maxBytes) const
{
    if (blob.type != NodeType::Blob)
        E57_THROW(ErrorCode::BadNodeDowncast, blob.pathName() + " is not a Blob");
    blob.requireNumbers();
    if (blob.length > maxBytes)
        E57_THROW(ErrorCode::BadApiArgument, "blob " + blob.pathName() + " holds " +
                                                 std::to_string(blob.length) + " bytes, more than the " +
                                                 std::to_string(maxBytes) + " asked for");
    const PagedFile& file = *m_pages;
    const uint64_t end = file.logicalSize();
    const uint64_t start = blob.binaryOffset;
    if (start > end || kBlobHeaderSize > end - start || blob.length > end - start - kBlobHeaderSize)
        E57_THROW(ErrorCode::ReadFailed, "blob " + blob.pathName() + " of " + std::to_string(blob.length) +
                                             " bytes at offset " + std::to_string(logicalToPhysical(start)) +
                                             " ends past the end of " + file.name());
    PageReader reader(file, 16);
    uint8_t header[kBlobHeaderSize];
    reader.read(start, header, sizeof header);
    if (header[0] != 0)
        E57_THROW(ErrorCode::ReadFailed, "blob " + blob.pathName() + " at offset " +
                                             std::to_string(logicalToPhysical(start)) + " of " + file.name() +
                                             " is not a blob section (section id " +
                                             std::to_string(header[0]) + ")");
    std::vector<uint8_t> bytes(static_cast<size_t>(blob.length));
    reader.read(start + kBlobHeaderSize, bytes.data(), bytes.size());
    return bytes;
}

}  // namespace e57
