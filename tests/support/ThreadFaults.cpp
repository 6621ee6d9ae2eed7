#include "support/ThreadFaults.h"

#include <atomic>
#include <filesystem>
#include <memory>
#include <system_error>

namespace pcp_test
{

namespace
{

std::filesystem::filesystem_error cancelFailure()
{
    return std::filesystem::filesystem_error("exists", "cache/cancel",
                                             std::make_error_code(std::errc::permission_denied));
}

}  // namespace

pc_preprocess::ThreadStarter threadStartFailingAt(size_t n)
{
    auto starts = std::make_shared<std::atomic<size_t>>(0);
    return [starts, n](std::function<void()> body)
    {
        if (++*starts == n)
            throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again),
                                    "thread start");
        return pc_preprocess::startThread(std::move(body));
    };
}

std::function<bool()> cancelThatThrowsWhen(std::function<bool()> fails)
{
    return [fails = std::move(fails)]
    {
        if (fails())
            throw cancelFailure();
        return false;
    };
}

std::string cancelFailureText()
{
    return cancelFailure().what();
}

}  // namespace pcp_test
