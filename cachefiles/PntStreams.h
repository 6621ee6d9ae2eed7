#pragma once

#include <fstream>
#include <string>

#include "core/Export.h"

namespace pc_preprocess
{

// The three open output files of a PNT under construction: the points, and the class and normal side files
// where the points have them. Opening truncates. Failures carry the writer's name: who + "Could not (fully)
// write " + path + "\nDisk full?".
class PCP_API PntStreams
{
public:
    PntStreams(const std::wstring& pntFile, bool withClasses, bool withNormals, std::string who);

    // A stream in a failed state is a write that did not (fully) reach the disk.
    void requireHealthy() const;
    // Closes all three, then checks that everything reached the disk.
    void close();

    std::ofstream pnt;
    std::ofstream classes;
    std::ofstream normals;

private:
    std::wstring m_pntPath;
    std::wstring m_classPath;
    std::wstring m_normalPath;
    std::string m_who;
};

}  // namespace pc_preprocess
