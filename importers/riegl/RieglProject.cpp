#include "importers/riegl/RieglProject.h"

#include <expat.h>

#include <charconv>
#include <cmath>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>

namespace pc_preprocess::riegl
{

namespace
{

using Matrix4 = std::array<double, 16>;  // row by row

constexpr size_t kMatrixNumbers = 16;
// No element of a project file that the importer reads holds more text; a longer one is no project file.
constexpr size_t kMaxText = 64 * 1024;
constexpr size_t kMaxDepth = 256;
constexpr std::string_view kSpaces = " \t\r\n";
constexpr std::string_view kResidualMark = ".residual.";
constexpr std::string_view kRdbExtension = ".rdbx";

std::string inQuotes(std::string_view text)
{
    constexpr size_t kShown = 40;
    return "\"" + std::string(text.substr(0, kShown)) + (text.size() > kShown ? "...\"" : "\"");
}

// The numbers of a matrix text. std::from_chars instead of std::stod: the same numbers, but independent of
// the process locale, and a text such as "1.5abc" is refused instead of read as 1.5.
std::optional<Matrix4> parseMatrix(std::string_view text, std::string& error)
{
    Matrix4 matrix{};
    size_t count = 0;
    while (true)
    {
        const size_t begin = text.find_first_not_of(kSpaces);
        if (begin == std::string_view::npos)
            break;
        text.remove_prefix(begin);
        const std::string_view token = text.substr(0, text.find_first_of(kSpaces));
        text.remove_prefix(token.size());
        double value = 0.0;
        const std::string_view digits = token.front() == '+' ? token.substr(1) : token;
        const auto [end, code] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
        if (code != std::errc() || end != digits.data() + digits.size() || !std::isfinite(value))
        {
            error = inQuotes(token) + " is not a number";
            return std::nullopt;
        }
        if (count == kMatrixNumbers)
        {
            error = "more than " + std::to_string(kMatrixNumbers) + " numbers";
            return std::nullopt;
        }
        matrix[count++] = value;
    }
    if (count < kMatrixNumbers)
    {
        error = "too few numbers: " + std::to_string(count) + " of " + std::to_string(kMatrixNumbers);
        return std::nullopt;
    }
    return matrix;
}

Matrix4 multiply(const Matrix4& a, const Matrix4& b)
{
    Matrix4 product{};
    for (size_t r = 0; r < 4; ++r)
        for (size_t c = 0; c < 4; ++c)
            for (size_t k = 0; k < 4; ++k)
                product[4 * r + c] += a[4 * r + k] * b[4 * k + c];
    return product;
}

constexpr Matrix4 kIdentity{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};

// A name that stays in its folder when joined to it.
bool isFileName(std::string_view name)
{
    return name.find_first_of("/\\") == std::string_view::npos && name != "." && name != "..";
}

// What the parser collects of the scan position it is in.
struct PositionState
{
    uint64_t line = 0;
    std::string name;
    std::optional<Matrix4> sop;
    std::optional<Matrix4> cop;
    struct Scan
    {
        uint64_t line = 0;
        std::string name;
    };
    std::vector<Scan> scans;
};

class ProjectParser
{
public:
    ProjectParser() : m_parser(XML_ParserCreate(nullptr), XML_ParserFree)
    {
        if (!m_parser)
            throw std::runtime_error("The XML parser could not be created");
        XML_SetUserData(m_parser.get(), this);
        XML_SetElementHandler(m_parser.get(), &ProjectParser::onStart, &ProjectParser::onEnd);
        XML_SetCharacterDataHandler(m_parser.get(), &ProjectParser::onText);
    }

    RieglProject parse(std::string_view xml)
    {
        // expat takes an int length; project files are small, a larger one is refused before parsing.
        if (xml.size() > static_cast<size_t>(std::numeric_limits<int>::max()))
            throw std::runtime_error("The project file is too large for a project file");
        if (XML_Parse(m_parser.get(), xml.data(), static_cast<int>(xml.size()), XML_TRUE) != XML_STATUS_OK)
        {
            if (m_error.empty())
                m_error = "Malformed project XML at line " + std::to_string(line()) + ", column " +
                          std::to_string(XML_GetCurrentColumnNumber(m_parser.get())) + ": " +
                          XML_ErrorString(XML_GetErrorCode(m_parser.get()));
            throw std::runtime_error(m_error);
        }
        if (m_project.scans.empty())
            throw std::runtime_error(
                "The project file names no scan below \"project\" / \"scanpositions\" / \"scanposition\"");
        return std::move(m_project);
    }

private:
    static void XMLCALL onStart(void* self, const XML_Char* name, const XML_Char** attributes)
    {
        static_cast<ProjectParser*>(self)->start(name, attributes);
    }
    static void XMLCALL onEnd(void* self, const XML_Char* name)
    {
        static_cast<ProjectParser*>(self)->end(name);
    }
    static void XMLCALL onText(void* self, const XML_Char* text, int length)
    {
        static_cast<ProjectParser*>(self)->text(std::string_view(text, static_cast<size_t>(length)));
    }

    uint64_t line() const { return XML_GetCurrentLineNumber(m_parser.get()); }

    // Ends the parse with `message`; the first failure is the one reported.
    void fail(const std::string& message)
    {
        if (m_error.empty())
            m_error = message;
        XML_StopParser(m_parser.get(), XML_FALSE);
    }

    std::string positionText() const
    {
        return m_position->name.empty() ? "Scan position at line " + std::to_string(m_position->line)
                                        : "Scan position " + inQuotes(m_position->name);
    }

    static const char* attribute(const XML_Char** attributes, std::string_view wanted)
    {
        for (size_t i = 0; attributes[i]; i += 2)
            if (wanted == attributes[i])
                return attributes[i + 1];
        return nullptr;
    }

    // The element `name` at `depth` below the open scan position, with its parents in between.
    bool inPosition(std::initializer_list<std::string_view> path) const
    {
        if (!m_position || m_stack.size() != kPositionDepth + path.size())
            return false;
        size_t level = kPositionDepth;
        for (const std::string_view element : path)
            if (m_stack[level++] != element)
                return false;
        return true;
    }

    void start(const XML_Char* name, const XML_Char** attributes)
    {
        if (m_stack.size() == kMaxDepth)
            return fail("The project XML nests deeper than " + std::to_string(kMaxDepth) + " elements at line " +
                        std::to_string(line()));
        m_stack.emplace_back(name);
        m_text.clear();
        if (m_stack.size() == kPositionDepth && m_stack[0] == "project" && m_stack[1] == "scanpositions" &&
            m_stack[2] == "scanposition")
        {
            m_position.emplace();
            m_position->line = line();
            if (const char* positionName = attribute(attributes, "name"))
                m_position->name = positionName;
        }
        else if (inPosition({"singlescans", "scan"}))
        {
            m_position->scans.push_back({line(), ""});
            if (const char* scanName = attribute(attributes, "name"))
                m_position->scans.back().name = scanName;
        }
        m_collecting = inPosition({"name"}) || inPosition({"sop", "matrix"}) || inPosition({"cop", "matrix"}) ||
                       inPosition({"singlescans", "scan", "name"});
    }

    void text(std::string_view text)
    {
        if (!m_collecting)
            return;
        if (m_text.size() + text.size() > kMaxText)
            return fail("The element " + inQuotes(m_stack.back()) + " at line " + std::to_string(line()) +
                        " holds more than " + std::to_string(kMaxText) + " characters");
        m_text += text;
    }

    void end(const XML_Char*)
    {
        if (inPosition({"name"}))
            m_position->name = trimmed(m_text);
        else if (inPosition({"singlescans", "scan", "name"}))
            m_position->scans.back().name = trimmed(m_text);
        else if (inPosition({"sop", "matrix"}))
            m_position->sop = matrix("sop");
        else if (inPosition({"cop", "matrix"}))
            m_position->cop = matrix("cop");
        else if (m_position && m_stack.size() == kPositionDepth)
            finishPosition();
        m_collecting = false;
        m_text.clear();
        m_stack.pop_back();
    }

    std::optional<Matrix4> matrix(const char* transformation)
    {
        std::string error;
        std::optional<Matrix4> result = parseMatrix(m_text, error);
        if (!result)
            fail(positionText() + ", element " + inQuotes(transformation) + " / \"matrix\" at line " +
                 std::to_string(line()) + ": " + error);
        return result;
    }

    static std::string trimmed(std::string_view text)
    {
        const size_t first = text.find_first_not_of(kSpaces);
        if (first == std::string_view::npos)
            return {};
        return std::string(text.substr(first, text.find_last_not_of(kSpaces) - first + 1));
    }

    void finishPosition()
    {
        const PositionState position = std::move(*m_position);
        m_position.reset();
        if (position.name.empty())
            return fail("Scan position at line " + std::to_string(position.line) + " has no \"name\"");
        // The name is also a folder in which the scans' files are looked for.
        if (!isFileName(position.name))
            return fail("Scan position at line " + std::to_string(position.line) + " is named " +
                        inQuotes(position.name) + ", which is no folder name");
        const bool hasPose = position.sop || position.cop;
        const Matrix4 pose = multiply(position.cop.value_or(kIdentity), position.sop.value_or(kIdentity));
        for (const PositionState::Scan& scan : position.scans)
        {
            if (scan.name.empty())
                return fail("Scan position " + inQuotes(position.name) + ": the \"scan\" at line " +
                            std::to_string(scan.line) + " has no \"name\"");
            if (!isFileName(scan.name))
                return fail("Scan position " + inQuotes(position.name) + ": the \"scan\" at line " +
                            std::to_string(scan.line) + " is named " + inQuotes(scan.name) + ", which is no file name");
            if (scan.name.find(kResidualMark) != std::string::npos)
            {
                m_project.residualFiles.push_back(scan.name);
                continue;
            }
            RieglScan record;
            record.position = position.name;
            record.name = scan.name;
            record.rdbFile = std::filesystem::path(scan.name).replace_extension(kRdbExtension);
            record.hasPose = hasPose;
            for (size_t r = 0; r < 3; ++r)
            {
                for (size_t c = 0; c < 3; ++c)
                    record.rotation[r + 3 * c] = pose[4 * r + c];
                record.translation[r] = pose[4 * r + 3];
            }
            m_project.scans.push_back(std::move(record));
        }
    }

    static constexpr size_t kPositionDepth = 3;

    std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> m_parser;
    std::vector<std::string> m_stack;
    std::optional<PositionState> m_position;
    std::string m_text;
    bool m_collecting = false;
    std::string m_error;
    RieglProject m_project;
};

}  // namespace

RieglProject parseRieglProject(std::string_view xml)
{
    return ProjectParser().parse(xml);
}

void locateRdbFiles(RieglProject& project, const std::filesystem::path& projectFile)
{
    const std::filesystem::path folder = projectFile.parent_path();
    for (RieglScan& scan : project.scans)
    {
        const std::filesystem::path position(scan.position);
        const std::filesystem::path file = scan.rdbFile;
        const std::filesystem::path candidates[] = {folder / "SCANS" / position / "SINGLESCANS" / file,
                                                    folder / position / file, folder / file};
        std::string tried;
        bool found = false;
        for (const std::filesystem::path& candidate : candidates)
        {
            std::error_code ignored;
            if (std::filesystem::is_regular_file(candidate, ignored))
            {
                scan.rdbFile = candidate;
                found = true;
                break;
            }
            tried += "\n\t\t" + candidate.string();
        }
        if (!found)
            throw std::runtime_error("Scan position " + inQuotes(scan.position) + ", scan " + inQuotes(scan.name) +
                                     ": the RDB file " + file.string() + " was not found; looked for" + tried);
    }
}

}  // namespace pc_preprocess::riegl
