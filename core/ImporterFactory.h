#pragma once

#include <memory>

#include "core/Convertor.h"
#include "core/InputFileData.h"

namespace pc_preprocess
{

// The importer for an input, chosen by its extension; a file of an unknown extension is read as PTS. Formats
// whose importer this build lacks fail here with a message naming the format and the file.
std::shared_ptr<Convertor> createImporter(const InputFileData& input);

}  // namespace pc_preprocess
