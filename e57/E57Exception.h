#pragma once

#include <stdexcept>
#include <string>

namespace e57
{

// The reasons a file cannot be read, numbered as the E57 reading libraries number them, so that a caller
// can translate them into its own words.
enum class ErrorCode : int
{
    BadCVHeader = 1,
    BadCVPacket = 2,
    ChildIndexOutOfBounds = 3,
    ValueNotRepresentable = 6,
    ScaledValueNotRepresentable = 7,
    ExpectingNumeric = 9,
    ExpectingUString = 10,
    Internal = 11,
    BadXmlFormat = 12,
    XmlParser = 13,
    BadApiArgument = 14,
    BadChecksum = 16,
    OpenFailed = 17,
    ReadFailed = 19,
    LseekFailed = 21,
    PathUndefined = 22,
    BadBuffer = 23,
    NoBufferForElement = 24,
    BufferSizeMismatch = 25,
    BadFileSignature = 27,
    UnknownFileVersion = 28,
    BadFileLength = 29,
    XmlParserInit = 30,
    BadPathName = 34,
    NotImplemented = 35,
    BadNodeDowncast = 36,
    BadConfiguration = 49,
};

// A failure of the reader: its code, what went wrong, and where in the reader it was found.
class E57Exception : public std::runtime_error
{
public:
    E57Exception(ErrorCode code, const std::string& context, const char* file, int line, const char* function)
        : std::runtime_error(context),
          m_code(code),
          m_context(context),
          m_file(file),
          m_line(line),
          m_function(function)
    {
    }

    ErrorCode code() const { return m_code; }
    // What went wrong, with the values involved, e.g. "page 3 of /data/scan.e57: checksum 0x1234 stored,
    // 0x5678 computed".
    const std::string& context() const { return m_context; }
    const char* sourceFile() const { return m_file; }
    int sourceLine() const { return m_line; }
    const char* sourceFunction() const { return m_function; }

private:
    ErrorCode m_code;
    std::string m_context;
    const char* m_file;
    int m_line;
    const char* m_function;
};

}  // namespace e57

// Throws an E57Exception with the place it is thrown from.
#define E57_THROW(code, context) throw ::e57::E57Exception((code), (context), __FILE__, __LINE__, __func__)
