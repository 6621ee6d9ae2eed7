#pragma once

#include <string>

#include "core/Export.h"

namespace pc_preprocess
{

// The names of one cache's files. A relative base lies in the folder; an absolute one stands as given, so a
// host may keep the octree's side files elsewhere. An HSPC cache keeps its query tree and the scan and region
// files under fixed names in the folder, where the HSPC reader looks for them.
//
//   file     octree           HSPC                                   HSPC packed
//   key      base.key         base.key                               base.key
//   tree     base.vrm         folder/queryTree.hspc                  base.hspc.pack
//   VRP      base.vrp         folder/queryTree.vrp                   folder/queryTree.vrp
//   RGN      base.rgn         folder/queryTree.rgn                   folder/queryTree.rgn
//   log      base.log         base.log                               base.log
//   PNT      base.pnt         base.pnt                               base.pnt
//   meta     base.meta        base.meta                              base.meta
//   result   the tree file
class PCP_API CacheFiles
{
public:
    CacheFiles(const std::wstring& folder, const std::wstring& base, bool hspc, bool pack);

    const std::wstring& getKeyFile() const { return m_keyFile; }
    const std::wstring& getTreeFile() const { return m_treeFile; }
    const std::wstring& getVrpFile() const { return m_vrpFile; }
    const std::wstring& getRgnFile() const { return m_rgnFile; }
    const std::wstring& getLogFile() const { return m_logFile; }
    const std::wstring& getPntName() const { return m_pntName; }
    const std::wstring& getMetaName() const { return m_metaName; }
    // What a run hands back to the host: the file it opens to show the cache.
    const std::wstring& getResultFile() const { return m_resultFile; }

private:
    std::wstring m_keyFile;
    std::wstring m_treeFile;
    std::wstring m_vrpFile;
    std::wstring m_rgnFile;
    std::wstring m_logFile;
    std::wstring m_pntName;
    std::wstring m_metaName;
    std::wstring m_resultFile;
};

}  // namespace pc_preprocess
