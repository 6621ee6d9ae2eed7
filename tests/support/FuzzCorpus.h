#pragma once

#include <filesystem>
#include <functional>
#include <string>

namespace pcp_test
{

// Hands every file of the fuzz corpus fuzz/corpus/<name> to `check` with its bytes, and returns how many
// there were. The corpus keeps the seeds and every input that once upset a fuzz target, so the normal tests
// replay them all. Fails the current test when the corpus folder is missing.
size_t replayFuzzCorpus(
    const std::string& name,
    const std::function<void(const std::string& bytes, const std::filesystem::path& file)>& check);

}  // namespace pcp_test
