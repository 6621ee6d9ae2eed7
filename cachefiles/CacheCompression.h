#pragma once

#include <cstdint>
#include <string>

#include "core/Export.h"
#include "core/WorkerThreads.h"

namespace pc_preprocess
{

// Turning all node files of a finished cache from one form into the other: PNT (plain, quick to write) into
// PNZ (deflated byte planes, about a third of the size), or back. The nodes are those of the VRM; their files
// lie in the folder "Data" beside it. A node may also have a file of removed points, "<stem>_rm.pnt" or
// "<stem>_rm.pnz", converted like a node file. Side files ("-class.pnt", "-normal.pnt") stay as they are.

struct CompressInfo
{
    // The node files found before the work, by form, and their bytes.
    uint64_t numPnt = 0;
    uint64_t numPnz = 0;
    uint64_t sizePnt = 0;
    uint64_t sizePnz = 0;
    // The files the work made: PNZ files by the compressor, PNT files by the decompressor.
    uint64_t newNumPnt = 0;
    uint64_t newNumPnz = 0;
    uint64_t newSizePnt = 0;
    uint64_t newSizePnz = 0;
};

// Converts every PNT node file (and "_rm" file) of the cache into its PNZ and removes the PNT; the
// decompressor does the reverse. Every node is looked at before anything is converted, and the work fails
// untouched with "The VRM file <path> does not exist.", "COMPRESS: VRM parse error." (the VRM cannot be read,
// or is not one), "Both <pnt> and <pnz> do NOT exist." (a node without its file) or "Both <pnt> and
// <pnz>exist." (a file in both forms). Then `threads` workers share the files, each taken by one of them;
// with 0 nothing is converted. A failed conversion stops its worker, the others go on, and the call ends by
// throwing one text with a line "thread[<i>]: <error>" per failed worker. Workers start through
// `startWorker`; when one cannot be started, those running stop after their current file and the call throws
// "Could not start worker thread <k> of <n>: <reason>".
PCP_API CompressInfo compressor(const std::wstring& vrm, unsigned int threads,
                                const ThreadStarter& startWorker = startThread);
PCP_API CompressInfo decompressor(const std::wstring& vrm, unsigned int threads,
                                  const ThreadStarter& startWorker = startThread);

}  // namespace pc_preprocess
