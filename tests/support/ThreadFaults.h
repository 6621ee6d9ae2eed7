#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "core/WorkerThreads.h"

namespace pcp_test
{

// Starts threads as the library does, except the n-th start (counted from 1 over the starter's life), which
// fails as it does on a system out of threads.
pc_preprocess::ThreadStarter threadStartFailingAt(size_t n);

// A cancel test that answers false while `fails` says no, and then throws the file system error that the
// run's own cancel test raises when it cannot tell whether the cancel file exists.
std::function<bool()> cancelThatThrowsWhen(std::function<bool()> fails);

// The text of that error, as a log holds it.
std::string cancelFailureText();

}  // namespace pcp_test
