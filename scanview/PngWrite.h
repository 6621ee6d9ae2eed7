#pragma once

#include <string>

namespace cv
{
class Mat;
}

namespace pc_preprocess
{

// Encodes the picture as PNG in memory and writes it to path in one go. Throws
// "pngWrite: Could not write to <path>\nDisk full?" when the file cannot be written.
void pngWrite(const std::wstring& path, const cv::Mat& image);

}  // namespace pc_preprocess
