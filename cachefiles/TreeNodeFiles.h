#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "cachefiles/PnzCodec.h"
#include "core/IoLightPoint.h"
#include "core/IoTransfo.h"

namespace pc_preprocess
{

// The PNZ files of the tree builder, read and written by a worker with its own coder, so that node after node
// reuses its compressor, decompressor and buffers. Same files and the same errors as readPNZ and
// writeTuncatePNZ; side files are neither read nor written, since a merged node has none.

// Appends the points of a PNZ that holds numPoints points: its inflated size is known, so it is inflated in
// one call. Classification and normals are 0.
void appendPnzPoints(const std::wstring& pnz, uint64_t numPoints, PnzCoder& coder,
                     std::vector<IoLightPoint>& points);

// writeTuncatePNZ with the worker's coder: scanId 0 for all points.
uint64_t writePnzPoints(const std::wstring& pnz, const IoTransfo& transfo,
                        std::span<const IoLightPoint> points, PnzCoder& coder);

// A PNZ from records of 26 bytes as a PNT holds them, scanId included; who names the writer in a write
// failure ("SerializedPoints: ").
uint64_t writePnzRecords(const std::wstring& pnz, const IoTransfo& transfo, std::span<const uint8_t> records,
                         const std::string& who, PnzCoder& coder);

// All records of a PNT of extended records into `records` (resized to 26 bytes a point), without its side
// files: the whole node at once, for a worker that splits it in memory. Errors are the PNT reader's.
void readPntRecords(const std::wstring& pnt, std::vector<uint8_t>& records);

}  // namespace pc_preprocess
