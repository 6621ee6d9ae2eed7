#pragma once

// One input of the VRM fuzz target, shared with the test that replays the kept inputs: the bytes as a cache's
// tree file. The reader either refuses the file with one of its own errors, or gives a tree that survives a
// round trip through the writer unchanged. The check returns what went wrong, or an empty text.
#include <fstream>
#include <stdexcept>
#include <string>

#include "cachefiles/VrmFile.h"
#include "core/StringConversion.h"

namespace pcp_fuzz
{

inline std::string fileBytes(const std::wstring& path)
{
    std::ifstream in(pc_preprocess::toPath(path), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// `file` and `copy` are two scratch paths ending in ".vrm".
inline std::string checkVrm(const std::string& bytes, const std::wstring& file, const std::wstring& copy)
{
    std::ofstream(pc_preprocess::toPath(file), std::ios::binary | std::ios::trunc) << bytes;
    pc_preprocess::VrmNode tree;
    try
    {
        tree = pc_preprocess::readVrm(file);
    }
    catch (const std::runtime_error& e)
    {
        const std::string text = e.what();
        return text.rfind("readVrm : ", 0) == 0 ? "" : "an error that is not the reader's own: " + text;
    }
    try
    {
        pc_preprocess::writeVrm(copy, tree);
        const std::string written = fileBytes(copy);
        pc_preprocess::writeVrm(copy, pc_preprocess::readVrm(copy));
        if (fileBytes(copy) != written)
            return "the tree read changes when written and read again";
    }
    catch (const std::exception& e)
    {
        return std::string("the tree read cannot be written and read again: ") + e.what();
    }
    return "";
}

}  // namespace pcp_fuzz
