// Reading one pack archive from many threads at once. ArchiveHandler guards every operation with its own
// mutex, so one handler opened for reading and shared by all readers already is that: each node read
// is a positioned read of its entry, and the lock is held only for that. A name of its own keeps the
// readers of a data set from depending on the disk form of the archive.
#pragma once

#include "hspc/store/DiskArchive.h"

namespace HSPC
{

using ConcurrentArchive = DiskReadArchive;

}  // namespace HSPC
