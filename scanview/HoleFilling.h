#pragma once

namespace cv
{
class Mat;
}

namespace pc_preprocess
{

// Fills the small holes of a picture of four 16-bit channels in place; any other kind of picture is left
// alone. A hole is a pixel that is 0 in all four channels, so a pixel with a colour but alpha 0 is data. Each
// hole nearer than 10 pixels to data copies the whole pixel of a data pixel within its distance; larger gaps
// stay open, since guessing across them would invent surfaces.
void fillHoles(cv::Mat& image);

}  // namespace pc_preprocess
