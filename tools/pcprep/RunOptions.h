#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/ColorMode.h"
#include "core/InputFileData.h"
#include "pcprep/Command.h"

namespace pcprep
{

// Everything `pcprep run` was asked for.
struct RunOptions
{
    std::string cacheFolder;
    std::string name = "cache";
    double scale = 0.001;     // the cache's coordinate step
    double inputScale = 1.0;  // one input unit in the cache's units
    unsigned threads = 1;     // all hardware threads unless --threads says otherwise
    uint64_t maxImagePixels = pc_preprocess::InputFileData::kDefaultMaxImagePixels;  // per camera image
    bool convertOnly = false;
    bool noPanoramaStyle = false;
    bool hspc = false;
    bool pack = false;  // with hspc: the data set as one pack archive NAME.hspc.pack
    bool normals = false;
    bool localFrame = false;
    std::string rieglLibrary;  // empty: the RIEGL library's usual names
    std::string columns;
    std::string delimiter;
    std::string skipPrefix;
    pc_preprocess::ColorMode colorMode;
    // The disk watchdog: warn below the smaller of warnGB and warnFraction of the disk, cancel below the
    // smaller of alertGB and alertFraction.
    uint64_t warnGB = 10;
    double warnFraction = 0.05;
    uint64_t alertGB = 2;
    double alertFraction = 0.01;
    uint64_t guardIntervalMs = 1000;
    std::vector<std::string> inputs;
};

// Throws UsageError for anything it cannot take.
RunOptions parseRunOptions(const Arguments& arguments);

}  // namespace pcprep
