#include "cachefiles/CacheCompression.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "cachefiles/PnzFiles.h"
#include "cachefiles/VrmFile.h"
#include "core/CurrentExceptionName.h"
#include "core/StringConversion.h"

namespace pc_preprocess
{

namespace
{

namespace fs = std::filesystem;

// The node files of a cache by form, in the order of the tree, with their bytes.
struct NodeFileLists
{
    std::vector<fs::path> pnt;
    std::vector<fs::path> pnz;
    uint64_t sizePnt = 0;
    uint64_t sizePnz = 0;
};

// Files of a node in the two forms, of which exactly one must exist; for a file that a node need not have,
// neither may.
void addFile(const fs::path& pnt, const fs::path& pnz, bool required, NodeFileLists& lists)
{
    std::error_code error;
    const bool hasPnt = fs::exists(pnt, error);
    const bool hasPnz = fs::exists(pnz, error);
    if (hasPnt && hasPnz)
        throw std::runtime_error("Both " + pnt.string() + " and " + pnz.string() + "exist.");
    if (hasPnz)
    {
        lists.pnz.push_back(pnz);
        lists.sizePnz += fs::file_size(pnz);
    }
    else if (hasPnt)
    {
        lists.pnt.push_back(pnt);
        lists.sizePnt += fs::file_size(pnt);
    }
    else if (required)
        throw std::runtime_error("Both " + pnt.string() + " and " + pnz.string() + " do NOT exist.");
}

void collectFiles(const VrmNode& node, const fs::path& pointFolder, NodeFileLists& lists)
{
    const fs::path pnt = pointFolder / toPath(node.file);
    const std::string stem = pnt.stem().string();
    addFile(pnt, fs::path(pnt).replace_extension(".pnz"), true, lists);
    addFile(pointFolder / (stem + "_rm.pnt"), pointFolder / (stem + "_rm.pnz"), false, lists);
    for (const VrmNode& child : node.children)
        collectFiles(child, pointFolder, lists);
}

// What one worker did; only that worker writes it until it is joined.
struct WorkerRecord
{
    uint64_t numPnt = 0;
    uint64_t numPnz = 0;
    uint64_t sizePnt = 0;
    uint64_t sizePnz = 0;
    bool good = true;
    std::string error;
};

class Conversion
{
public:
    Conversion(const std::vector<fs::path>& sources, bool compress) : m_sources(sources), m_compress(compress)
    {
    }

    // A thread body: nothing leaves it, whatever fails is the worker's error.
    void work(WorkerRecord& record)
    {
        runWithoutThrowing(
            [&]
            {
                while (record.good)
                {
                    size_t index;
                    {
                        std::lock_guard lock(m_mutex);
                        if (m_next >= m_sources.size())
                            return;
                        index = m_next++;
                    }
                    convertOne(m_sources[index], record);
                }
            },
            [&record](const std::string& text)
            {
                record.good = false;
                record.error = text;
            });
    }

    // Leaves the files not yet taken to nobody.
    void stop()
    {
        std::lock_guard lock(m_mutex);
        m_next = m_sources.size();
    }

private:
    // A failure leaves the node in one form, the source's: a target that may be partly written goes.
    void convertOne(const fs::path& source, WorkerRecord& record)
    {
        const fs::path target = fs::path(source).replace_extension(m_compress ? ".pnz" : ".pnt");
        try
        {
            if (m_compress)
            {
                record.sizePnz += directPntToPnz(toWide(source), toWide(target));
                ++record.numPnz;
            }
            else
            {
                record.sizePnt += directPnzToPnt(toWide(source), toWide(target));
                ++record.numPnt;
            }
            fs::remove(source);
            return;
        }
        catch (const std::exception& e)
        {
            record.error = e.what();
        }
        catch (...)
        {
            record.error =
                "unknown exception " + currentExceptionTypeName() + " converting " + source.string();
        }
        record.good = false;
        std::error_code error;
        if (fs::exists(source, error))
            fs::remove(target, error);
    }

    const std::vector<fs::path>& m_sources;
    const bool m_compress;
    std::mutex m_mutex;
    size_t m_next = 0;
};

CompressInfo convertCache(const std::wstring& vrm, unsigned int threads, bool compress,
                          const ThreadStarter& startWorker)
{
    const fs::path vrmPath = toPath(vrm);
    std::error_code error;
    if (!fs::exists(vrmPath, error))
        throw std::runtime_error("The VRM file " + ws2s(vrm) + " does not exist.");
    VrmNode root;
    try
    {
        root = readVrm(vrm);
    }
    catch (const std::exception&)
    {
        throw std::runtime_error("COMPRESS: VRM parse error.");
    }

    NodeFileLists lists;
    collectFiles(root, vrmPath.parent_path() / "Data", lists);
    CompressInfo info;
    info.numPnt = lists.pnt.size();
    info.numPnz = lists.pnz.size();
    info.sizePnt = lists.sizePnt;
    info.sizePnz = lists.sizePnz;

    const std::vector<fs::path>& sources = compress ? lists.pnt : lists.pnz;
    // More workers than files would find nothing to do.
    std::vector<WorkerRecord> records(std::min<size_t>(threads, sources.size()));
    Conversion conversion(sources, compress);
    std::atomic<size_t> nextRecord{0};
    runOnThreads(
        records.size(), [&] { conversion.work(records[nextRecord++]); }, [&conversion] { conversion.stop(); },
        startWorker);

    std::string failures;
    for (size_t i = 0; i < records.size(); ++i)
    {
        const WorkerRecord& record = records[i];
        info.newNumPnt += record.numPnt;
        info.newNumPnz += record.numPnz;
        info.newSizePnt += record.sizePnt;
        info.newSizePnz += record.sizePnz;
        if (!record.good)
            failures += "thread[" + std::to_string(i) + "]: " + record.error + "\n";
    }
    if (!failures.empty())
        throw std::runtime_error(failures);
    return info;
}

}  // namespace

CompressInfo compressor(const std::wstring& vrm, unsigned int threads, const ThreadStarter& startWorker)
{
    return convertCache(vrm, threads, true, startWorker);
}

CompressInfo decompressor(const std::wstring& vrm, unsigned int threads, const ThreadStarter& startWorker)
{
    return convertCache(vrm, threads, false, startWorker);
}

}  // namespace pc_preprocess
