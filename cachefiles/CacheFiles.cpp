#include "cachefiles/CacheFiles.h"

#include <filesystem>

#include "core/StringConversion.h"

namespace pc_preprocess
{

namespace
{

// Joining paths keeps an absolute second part as it is, which is what lets a base stand on its own.
std::wstring inFolder(const std::wstring& folder, const std::wstring& name)
{
    return toWide(toPath(folder) / toPath(name));
}

}  // namespace

CacheFiles::CacheFiles(const std::wstring& folder, const std::wstring& base, bool hspc, bool pack)
    : m_keyFile(inFolder(folder, base + L".key")),
      m_treeFile(!hspc  ? inFolder(folder, base + L".vrm")
                 : pack ? inFolder(folder, base + L".hspc.pack")
                        : inFolder(folder, L"queryTree.hspc")),
      m_vrpFile(hspc ? inFolder(folder, L"queryTree.vrp") : inFolder(folder, base + L".vrp")),
      m_rgnFile(hspc ? inFolder(folder, L"queryTree.rgn") : inFolder(folder, base + L".rgn")),
      m_logFile(inFolder(folder, base + L".log")),
      m_pntName(inFolder(folder, base + L".pnt")),
      m_metaName(inFolder(folder, base + L".meta")),
      m_resultFile(m_treeFile)
{
}

}  // namespace pc_preprocess
