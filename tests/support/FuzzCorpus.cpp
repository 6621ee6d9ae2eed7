#include "support/FuzzCorpus.h"

#include <gtest/gtest.h>

#include "support/FileText.h"

namespace pcp_test
{

size_t replayFuzzCorpus(
    const std::string& name,
    const std::function<void(const std::string& bytes, const std::filesystem::path& file)>& check)
{
    const std::filesystem::path corpus = std::filesystem::path(PCP_SOURCE_DIR) / "fuzz" / "corpus" / name;
    if (!std::filesystem::is_directory(corpus))
    {
        ADD_FAILURE() << "no fuzz corpus at " << corpus;
        return 0;
    }
    size_t replayed = 0;
    for (const auto& entry : std::filesystem::directory_iterator(corpus))
    {
        check(readText(entry.path()), entry.path());
        ++replayed;
    }
    return replayed;
}

}  // namespace pcp_test
