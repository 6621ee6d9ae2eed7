// pcprep: the example host of pointcloud_preprocess. It does what a host application does with the library,
// from a command line, and is the quickest way to try it.
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "pcprep/Command.h"

namespace
{

using pcprep::Command;

const Command kCommands[] = {
    {"info", "describe a node file (.pnt or .pnz)",
     "Usage: pcprep info FILE [--points N]\n"
     "\n"
     "Prints what a node file holds: its transform, the point count, the integer and the real box, the "
     "ranges of\n"
     "colour, intensity and scan index, and which side files (classes, normals) lie beside it.\n"
     "\n"
     "  --points N   also list the first N points with all their fields\n",
     pcprep::runInfo},
    {"sample", "write the built-in sample into a folder",
     "Usage: pcprep sample FOLDER\n"
     "\n"
     "Writes the built-in sample: a terrestrial scan of a furnished room, simulated, as the node file\n"
     "FOLDER/sample-room.pnt (50000 points, millimetre grid) with its class and normal side files.\n"
     "The folder is created if it is missing; an existing sample in it is replaced.\n",
     pcprep::runSample},
    {"compress", "write the compressed twin (.pnz) of a node file",
     "Usage: pcprep compress NODE.pnt [--replace]\n"
     "\n"
     "Writes NODE.pnz beside NODE.pnt: the same points, byte planes deflated. Side files stay as they are.\n"
     "\n"
     "  --replace    remove NODE.pnt once NODE.pnz is written\n",
     pcprep::runCompress},
    {"decompress", "write the plain twin (.pnt) of a compressed node file",
     "Usage: pcprep decompress NODE.pnz [--replace]\n"
     "\n"
     "Writes NODE.pnt beside NODE.pnz. Side files stay as they are.\n"
     "\n"
     "  --replace    remove NODE.pnz once NODE.pnt is written\n",
     pcprep::runDecompress},
};

const Command* findCommand(const std::string& name)
{
    for (const Command& command : kCommands)
        if (name == command.name)
            return &command;
    return nullptr;
}

void printOverview(std::FILE* out)
{
    std::fprintf(out,
                 "pcprep - the example host of pointcloud_preprocess\n"
                 "\n"
                 "Usage: pcprep COMMAND [ARGUMENTS]\n"
                 "\n"
                 "Commands:\n");
    for (const Command& command : kCommands)
        std::fprintf(out, "  %-12s %s\n", command.name, command.summary);
    std::fprintf(out,
                 "  %-12s %s\n"
                 "\n"
                 "Run 'pcprep help COMMAND' for the arguments of a command.\n",
                 "help", "show this text, or the usage of one command");
}

bool isHelpFlag(const std::string& text)
{
    return text == "--help" || text == "-h" || text == "help";
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2)
    {
        printOverview(stderr);
        return 2;
    }
    const std::string name = argv[1];
    const pcprep::Arguments arguments(argv + 2, argv + argc);
    if (isHelpFlag(name))
    {
        if (arguments.empty())
        {
            printOverview(stdout);
            return 0;
        }
        const Command* command = findCommand(arguments[0]);
        if (command == nullptr)
        {
            std::fprintf(stderr, "pcprep: unknown command '%s'\n", arguments[0].c_str());
            return 2;
        }
        std::fputs(command->usage, stdout);
        return 0;
    }

    const Command* command = findCommand(name);
    if (command == nullptr)
    {
        std::fprintf(stderr, "pcprep: unknown command '%s'\n\n", name.c_str());
        printOverview(stderr);
        return 2;
    }
    if (arguments.size() == 1 && isHelpFlag(arguments[0]))
    {
        std::fputs(command->usage, stdout);
        return 0;
    }
    try
    {
        return command->run(arguments);
    }
    catch (const pcprep::UsageError& e)
    {
        std::fprintf(stderr, "pcprep %s: %s\n\n%s", command->name, e.what(), command->usage);
        return 2;
    }
    catch (const std::exception& e)
    {
        std::fprintf(stderr, "pcprep %s: %s\n", command->name, e.what());
        return 1;
    }
}
