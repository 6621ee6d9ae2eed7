#pragma once

#include <string>

#include "core/Export.h"

namespace pc_preprocess
{

// The narrow form of a wide path, for libraries without a wide interface. Narrow paths are UTF-8 on this
// platform, so the conversion is always the same; what the class adds is the existence check: a path that
// does not exist gives an empty result, which callers treat as a failure.
class PCP_API StringPathConvertor
{
public:
    explicit StringPathConvertor(const std::wstring& path);

    // The narrow path, or empty when the path does not exist.
    const std::string& convertedInputPath() const { return m_convertedInputPath; }

    // The same conversion applied to another path, and its reverse.
    std::string convertPath(const std::wstring& path) const;
    std::wstring backwardConvertPath(const std::string& path) const;

private:
    std::string m_convertedInputPath;
};

}  // namespace pc_preprocess
