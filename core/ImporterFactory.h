#pragma once

#include <memory>
#include <optional>

#include "core/Convertor.h"
#include "core/InputFileData.h"

namespace pc_preprocess
{

// The importer for an input, chosen by its extension; a file of an unknown extension is read as PTS. Formats
// whose importer this build lacks fail here with a message naming the format and the file. With a local frame
// the importer carries georeferenced input into it (an invalid frame: the probe proposes one).
std::shared_ptr<Convertor> createImporter(const InputFileData& input,
                                          const std::optional<TopoDef>& localFrame = std::nullopt);

}  // namespace pc_preprocess
