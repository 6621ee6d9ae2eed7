#include "hspc/format/Loggers.h"

#include <cstdio>

namespace HSPC
{

void reportTo(const LogFunction& logger, const std::string& message)
{
    if (logger)
    {
        logger(message);
    }
}

void printInfo(const std::string& message)
{
    std::fprintf(stdout, "HSPC:    info: %s \n", message.c_str());
}

void printWarning(const std::string& message)
{
    std::fprintf(stderr, "HSPC: warning: %s \n", message.c_str());
}

void printError(const std::string& message)
{
    std::fprintf(stderr, "HSPC:   error: %s \n", message.c_str());
}

void printProgress(int percent, const std::string& message)
{
    std::fprintf(stdout, "HSPC:  %d/100: %s \n", percent, message.c_str());
}

void printQueryInfo(const std::string& message)
{
    std::fprintf(stdout, "HSPC query:    info: %s \n", message.c_str());
    std::fflush(stdout);
}

void printQueryWarning(const std::string& message)
{
    std::fprintf(stdout, "HSPC query: warning: %s \n", message.c_str());
    std::fflush(stdout);
}

void printQueryError(const std::string& message)
{
    std::fprintf(stderr, "HSPC query:   error: %s \n", message.c_str());
    std::fflush(stderr);
}

}  // namespace HSPC
