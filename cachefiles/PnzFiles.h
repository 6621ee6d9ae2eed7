#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/Export.h"
#include "core/IoLightPoint.h"
#include "core/IoTransfo.h"
#include "geom/Point3d.h"

namespace pc_preprocess
{

// PNZ node files: the form in which finished nodes stay on disk, a PNT turned into byte planes and compressed
// with zlib. Every function checks the extension ".pnz" (and ".pnt" for the PNT side of a conversion) exactly
// first, and fails with a std::runtime_error whose text says what went wrong. Side files stay uncompressed
// "-class.pnt" and "-normal.pnt" files beside the node; readers use them when they exist.

// All points, with classification and normals from the side files (0 where a side file is missing).
PCP_API void readPNZ(const std::wstring& pnz, IoTransfo& transfo, std::vector<IoLightPoint>& points);

// All points as separate arrays in real coordinates; the caller sizes them for the node's point count, as for
// readPNT.
PCP_API void readPNZ(const std::wstring& pnz, IoTransfo& transfo, std::vector<geom::Point3d>& points,
                     std::vector<float>& colours, std::vector<float>& intensities, std::vector<float>& radii);

// Write a node in one go and return the size of the PNZ file. Both store scanId 0, so that merged nodes carry
// no scan index, and write no side files.
PCP_API uint64_t writeTuncatePNZ(const std::wstring& pnz, const IoTransfo& transfo,
                                 const std::vector<IoLightPoint>& points);
PCP_API uint64_t overwritePNZ(const std::wstring& pnz, const IoTransfo& transfo,
                              const std::vector<geom::Point3d>& points, const std::vector<float>& colours,
                              const std::vector<float>& intensities, const std::vector<float>& radii);

// Convert one form into the other, keeping the source and leaving the side files alone; return the size of
// the written file. A PNT of 22-byte records stays so in its PNZ, and back.
PCP_API uint64_t directPntToPnz(const std::wstring& pnt, const std::wstring& pnz);
PCP_API uint64_t directPnzToPnt(const std::wstring& pnz, const std::wstring& pnt);

}  // namespace pc_preprocess
