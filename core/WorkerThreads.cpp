#include "core/WorkerThreads.h"

#include <exception>
#include <stdexcept>
#include <vector>

#include "core/CurrentExceptionName.h"

namespace pc_preprocess
{

std::jthread startThread(std::function<void()> body)
{
    return std::jthread(std::move(body));
}

void runOnThreads(size_t count, const std::function<void()>& body, const std::function<void()>& abandon,
                  const ThreadStarter& start)
{
    std::string startFailure;
    {
        // jthreads join when they go, so the threads already running are joined however this block is left.
        std::vector<std::jthread> threads;
        threads.reserve(count);
        for (size_t index = 0; index < count; ++index)
        {
            try
            {
                threads.push_back(start(body));
            }
            catch (...)
            {
                startFailure = "Could not start worker thread " + std::to_string(index + 1) + " of " +
                               std::to_string(count) + ": " + currentExceptionText();
                abandon();
                break;
            }
        }
    }
    if (!startFailure.empty())
        throw std::runtime_error(startFailure);
}

void runWithoutThrowing(const std::function<void()>& body,
                        const std::function<void(const std::string&)>& failed) noexcept
{
    try
    {
        body();
    }
    catch (...)
    {
        try
        {
            failed(currentExceptionText());
        }
        catch (...)
        {
        }
    }
}

std::string currentExceptionText()
{
    try
    {
        throw;
    }
    catch (const std::exception& e)
    {
        return e.what();
    }
    catch (...)
    {
        const std::string type = currentExceptionTypeName();
        return type.empty() ? "exception of unknown type" : "exception of type " + type;
    }
}

}  // namespace pc_preprocess
