// An HSPC data set as pcprep finds it: a folder holding "tree.hspc" and "queryTree.hspc", one of these tree
// files itself, or a pack archive.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "hspc/store/RootStore.h"
#include "hspc/tree/Tree.h"

namespace pcprep
{

struct HspcDataSet
{
    std::filesystem::path path;
    // "folder" or "pack archive".
    std::string form;
    std::unique_ptr<HSPC::RootReader> reader;
};

// Whether `argument` names a data set: a pack archive (by its "mMPK" magic), a folder with a tree file, or
// a file named "tree.hspc" or "queryTree.hspc".
bool namesHspcDataSet(const std::filesystem::path& argument);

// Opens the data set; throws std::runtime_error when it can't be opened.
HspcDataSet openHspcDataSet(const std::filesystem::path& argument);

// Reads and loads one tree file of the data set ("/tree.hspc" or "/queryTree.hspc"); throws with the
// loader's reason when it is missing or broken.
HSPC::Tree loadHspcTree(HSPC::RootReader& reader, const std::string& name);

}  // namespace pcprep
