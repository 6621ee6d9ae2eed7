#pragma once

#include <string>
#include <vector>

namespace pc_preprocess
{

// The files of one 2D image of a scan.
struct ScanImageFiles
{
    std::wstring metaFile;
    std::wstring viewPng;
    std::wstring normalPng;
};

// What converting one scan left in the cache folder.
struct ScanFiles
{
    std::wstring pntFile;    // "-temp.pnt"; the side files follow from it
    std::wstring metaFile;   // "-temp.meta"
    std::wstring viewPng;    // empty without a panorama
    std::wstring normalPng;  // empty without a panorama
    std::vector<ScanImageFiles> images;
    double filledAreaUnitSphere = 0.0;
    bool hasScanView = false;  // meaningful on the first entry of a run's result
};

}  // namespace pc_preprocess
