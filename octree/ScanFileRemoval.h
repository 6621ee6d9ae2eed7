#pragma once

#include "core/ScanFiles.h"

namespace pc_preprocess
{

// Deletes what a scan's conversion left for the tree: its point file with the class and normal side files,
// its meta file and the meta files of its images; the pictures stay. A stage calls it as soon as a scan's
// points have moved on, so that the disk holds each point about once. Files already gone are no error.
void deleteScanFiles(const ScanFiles& scan);

}  // namespace pc_preprocess
