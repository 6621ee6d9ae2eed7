#include "cachefiles/PntStreams.h"

#include <stdexcept>
#include <utility>

#include "cachefiles/NodeFileErrors.h"
#include "core/NodePaths.h"
#include "core/StringConversion.h"

namespace pc_preprocess
{

PntStreams::PntStreams(const std::wstring& pntFile, bool withClasses, bool withNormals, std::string who)
    : m_pntPath(pntFile),
      m_classPath(getClassPathFromPnt(pntFile)),
      m_normalPath(getNormalPathFromPnt(pntFile)),
      m_who(std::move(who))
{
    const auto mode = std::ios::binary | std::ios::trunc | std::ios::out;
    pnt.open(toPath(m_pntPath), mode);
    if (withClasses)
        classes.open(toPath(m_classPath), mode);
    if (withNormals)
        normals.open(toPath(m_normalPath), mode);
    requireHealthy();
}

void PntStreams::requireHealthy() const
{
    const std::pair<const std::ofstream*, const std::wstring*> streams[] = {
        {&pnt, &m_pntPath}, {&classes, &m_classPath}, {&normals, &m_normalPath}};
    for (const auto& [stream, path] : streams)
        if (stream->fail())
            throw std::runtime_error(writeFailureMessage(m_who, *path));
}

void PntStreams::close()
{
    for (std::ofstream* stream : {&pnt, &classes, &normals})
        if (stream->is_open())
            stream->close();
    requireHealthy();
}

}  // namespace pc_preprocess
