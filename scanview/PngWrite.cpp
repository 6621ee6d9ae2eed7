#include "scanview/PngWrite.h"

#include <cstdint>
#include <stdexcept>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "cachefiles/FileDescriptor.h"
#include "cachefiles/FileWriter.h"
#include "core/StringConversion.h"

namespace pc_preprocess
{

void pngWrite(const std::wstring& path, const cv::Mat& image)
{
    std::vector<uint8_t> encoded;
    try
    {
        if (!cv::imencode(".png", image, encoded))
            throw std::runtime_error("pngWrite: Could not encode " + ws2s(path));
    }
    catch (const cv::Exception& e)
    {
        throw std::runtime_error("pngWrite: Could not encode " + ws2s(path) + " (" + e.what() + ")");
    }
    try
    {
        writeWholeFile(toPath(path), encoded);
    }
    catch (const FileError&)
    {
        throw std::runtime_error("pngWrite: Could not write to " + ws2s(path) + "\nDisk full?");
    }
}

}  // namespace pc_preprocess
