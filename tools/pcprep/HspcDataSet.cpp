#include "pcprep/HspcDataSet.h"

#include <cstring>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "hspc/store/DiskArchive.h"
#include "hspc/store/FolderStore.h"
#include "hspc/tree/SerializeTree.h"

namespace pcprep
{
namespace
{

namespace fs = std::filesystem;

constexpr const char* kTreeFileNames[] = {"tree.hspc", "queryTree.hspc"};

// Archives are told by their first bytes, not by their names: the library also takes any five-letter name
// for an archive, which would catch node files such as "a.pnt".
bool isPackArchive(const fs::path& file)
{
    std::error_code error;
    if (!fs::is_regular_file(file, error))
        return false;
    std::ifstream stream(file, std::ios::binary);
    char magic[4] = {};
    return stream.read(magic, sizeof(magic)) && std::memcmp(magic, "mMPK", sizeof(magic)) == 0;
}

bool isTreeFileName(const fs::path& file)
{
    for (const char* name : kTreeFileNames)
        if (file.filename() == name)
            return true;
    return false;
}

bool holdsTreeFile(const fs::path& folder)
{
    std::error_code error;
    for (const char* name : kTreeFileNames)
        if (fs::is_regular_file(folder / name, error))
            return true;
    return false;
}

// The library reports on a logger; pcprep throws one message with the data set's path instead.
struct FirstError
{
    std::string text;
    HSPC::LogFunction log()
    {
        return [this](const std::string& message)
        {
            if (text.empty())
                text = message;
        };
    }
};

}  // namespace

bool namesHspcDataSet(const fs::path& argument)
{
    std::error_code error;
    if (fs::is_directory(argument, error))
        return holdsTreeFile(argument);
    return isPackArchive(argument) || (isTreeFileName(argument) && fs::is_regular_file(argument, error));
}

HspcDataSet openHspcDataSet(const fs::path& argument)
{
    HspcDataSet dataSet;
    dataSet.path = argument;
    if (isPackArchive(argument))
    {
        FirstError errors;
        auto archive = std::make_unique<HSPC::DiskReadArchive>(argument.string(), errors.log());
        if (!archive->handler()->isOpen())
            throw std::runtime_error(argument.string() + ": not a readable pack archive" +
                                     (errors.text.empty() ? "" : ": " + errors.text));
        dataSet.form = "pack archive";
        dataSet.reader = std::move(archive);
        return dataSet;
    }
    const fs::path folder = fs::is_directory(argument) ? argument : argument.parent_path();
    dataSet.form = "folder";
    dataSet.reader = std::make_unique<HSPC::FolderReader>((folder.empty() ? fs::path(".") : folder).string());
    return dataSet;
}

HSPC::Tree loadHspcTree(HSPC::RootReader& reader, const std::string& name)
{
    std::vector<uint8_t> bytes;
    if (!reader.read(name, bytes))
        throw std::runtime_error(name.substr(1) + " is missing or empty in " + reader.location());
    HSPC::Tree tree;
    FirstError errors;
    if (!HSPC::loadTree(bytes, tree, errors.log()))
        throw std::runtime_error(name.substr(1) + " in " + reader.location() + ": " + errors.text);
    return tree;
}

}  // namespace pcprep
