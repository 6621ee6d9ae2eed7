#include "scanview/HoleFilling.h"

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

namespace pc_preprocess
{

namespace
{

constexpr float kLargestFilledDistance = 10.0f;

}  // namespace

void fillHoles(cv::Mat& image)
{
    if (image.empty() || image.type() != CV_16UC4)
        return;
    cv::Mat channels[4];
    cv::split(image, channels);
    const cv::Mat holes = (channels[0] == 0) & (channels[1] == 0) & (channels[2] == 0) & (channels[3] == 0);

    // For every hole the distance to the nearest pixel with data; data pixels have 0.
    cv::Mat distances;
    cv::distanceTransform(holes, distances, cv::DIST_L2, cv::DIST_MASK_5);

    const cv::Rect whole(0, 0, image.cols, image.rows);
    for (int row = 0; row < image.rows; ++row)
    {
        const float* distanceRow = distances.ptr<float>(row);
        for (int column = 0; column < image.cols; ++column)
        {
            const float distance = distanceRow[column];
            if (distance == 0.0f || !(distance < kLargestFilledDistance))
                continue;
            // The nearest data pixel lies no further than the distance in either direction, so this window
            // holds one. The distances are those from before filling: a filled pixel is never a source.
            const int radius = static_cast<int>(distance);
            const cv::Rect window =
                cv::Rect(column - radius, row - radius, 2 * radius + 1, 2 * radius + 1) & whole;
            cv::Point source;
            cv::minMaxLoc(distances(window), nullptr, nullptr, &source, nullptr);
            image.at<cv::Vec4w>(row, column) = image.at<cv::Vec4w>(window.y + source.y, window.x + source.x);
        }
    }
}

}  // namespace pc_preprocess
