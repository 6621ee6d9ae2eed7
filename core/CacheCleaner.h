#pragma once

#include <memory>
#include <string>

namespace pc_preprocess
{

class Logger;

// What a failed or cancelled run leaves: the log, and nothing else of the run. Removes every regular file of
// the folder but the ".log" files, then the point and bubbles folders with their contents, and hands the
// disk figures with all held errors to the log.
void cleanCacheFolder(const std::shared_ptr<Logger>& logger, const std::wstring& cacheFolder);

}  // namespace pc_preprocess
