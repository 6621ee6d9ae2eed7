#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <thread>

#include "core/Export.h"

namespace pc_preprocess
{

// How a pool starts one of its threads. The library starts a std::jthread; a host that manages its threads
// itself (names, stack sizes) supplies its own, and so does a test that makes a start fail.
using ThreadStarter = std::function<std::jthread(std::function<void()>)>;

// The library's way of starting a thread.
PCP_API std::jthread startThread(std::function<void()> body);

// Runs `body` on `count` threads made by `start` and returns once all of them are joined. When a thread cannot
// be started, `abandon` is called so that the threads already running end their work early; those are joined
// and a runtime_error that names the thread and the reason is thrown.
void runOnThreads(size_t count, const std::function<void()>& body, const std::function<void()>& abandon,
                  const ThreadStarter& start);

// The outermost frame of a thread body. An exception that leaves a thread ends the whole process, the host
// with it; here whatever `body` throws goes to `failed` as text instead, and should `failed` throw in turn,
// that is dropped: a caller that needs to know keeps its own mark of the failure before it reports.
void runWithoutThrowing(const std::function<void()>& body,
                        const std::function<void(const std::string&)>& failed) noexcept;

// Inside a catch handler: the text of the exception being handled, or its type's name when it is not a
// std::exception.
std::string currentExceptionText();

}  // namespace pc_preprocess
