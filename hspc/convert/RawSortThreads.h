// The input threads and temp writers of the raw sort.
#pragma once

#include <cstdint>
#include <vector>

#include "hspc/convert/Importer.h"
#include "hspc/convert/StaticRawSortProcessHandler.h"

namespace HSPC
{

// One importer of an input thread's share, with its place in the stage's list of importers.
struct AssignedImporter
{
    uint32_t index = 0;
    Importer* importer = nullptr;
};

// Reads the importers one after the other, each to its end, while the stage goes on and its memory allows,
// and reports when it is through, also when its share is empty.
template <typename W>
void runInputThread(StaticRawSortProcessHandler<W>& manager, const std::vector<AssignedImporter>& importers);

// Writes queued runs, cell lists and leaf arrays to their temp files until the workers are done and the
// queues are empty, or the stage fails.
template <typename W>
void runTempWriter(StaticRawSortProcessHandler<W>& manager);

}  // namespace HSPC
