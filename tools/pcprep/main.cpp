// pcprep: the example host of pointcloud_preprocess. It does what a host application does with the library,
// from a command line, and is the quickest way to try it.
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "core/ErrorWithReason.h"
#include "pcprep/Command.h"

namespace
{

using pcprep::Command;

const Command kCommands[] = {
    {"run", "preprocess scan files into a cache, with progress, cancel and disk watchdog",
     "Usage: pcprep run --cache DIR [OPTIONS] INPUT...\n"
     "\n"
     "Turns the INPUT files into a cache in DIR (created if missing), as a host application does: the log\n"
     "DIR/NAME.log, the progress file DIR/NAME.pct polled for the bar, the disk watchdog beside the run, "
     "and\n"
     "Ctrl-C turned into the cancel file DIR/cancel. A failed or cancelled run leaves only the log in DIR.\n"
     "Inputs: PTS files (.pts, and text files of any other unknown extension), PTX, LAS, LAZ and E57 files,\n"
     "RIEGL projects (project.rsp) and RDB files (.rdbx) when the RIEGL library is installed, and HSPC\n"
     "data sets: a queryTree.hspc file, the folder that holds it, or a .pack archive (not tree.hspc).\n"
     "Structured scans (PTX) also get their panoramas, a colour view and a normal map per scan, as PNG\n"
     "files in DIR/Bubbles.\n"
     "\n"
     "  --name NAME             base name of the cache files in DIR (default: cache)\n"
     "  --scale S               the cache's coordinate step, in the cache's units (default: 0.001)\n"
     "  --input-scale F         one unit of the inputs in the cache's units, e.g. 0.001 for millimetre\n"
     "                          files in a metre cache (default: 1); E57 files are metres whatever this "
     "says\n"
     "  --threads N             worker threads (default: all hardware threads)\n"
     "  --max-image-pixels N    E57 camera images larger than N pixels are left out with a warning\n"
     "                          (default: 100000000)\n"
     "  --convert-only          stop after the per-scan point files, meta files and VRP: no tree\n"
     "  --no-panorama-style     never thin the tree by scanner distance\n"
     "  --hspc                  build an HSPC data set instead of an octree: DIR/queryTree.hspc and "
     "tree.hspc,\n"
     "                          DIR/hspcInfo.json and the node files in numbered folders of DIR\n"
     "  --pack                  with --hspc: the data set as one archive DIR/NAME.hspc.pack\n"
     "  --normals               compute normals where the input has none (HSPC)\n"
     "  --local-frame           carry georeferenced LAS and LAZ inputs into a local east-north-up frame in\n"
     "                          metres, on the ellipsoid below the first point; the cache keeps the frame "
     "in\n"
     "                          DIR/topocentric.json\n"
     "  --riegl-library FILE    the RIEGL library (librdb.so) for RSP and RDBX inputs (default: librdb.so on\n"
     "                          the library search path)\n"
     "  --columns FORMAT        PTS columns, letters X Y Z I R G B and '.' to skip one (default: detect)\n"
     "  --delimiter D           PTS column delimiter (default: white space)\n"
     "  --skip-prefix P         in files of unknown extension, ignore each line from P on\n"
     "  --rgb-mode MODE         kRgbNone, kRgb16Bit, kRgb8Bit, kRgbBlack or kRgbFromIntensity\n"
     "                          (default: detected from the data)\n"
     "  --intensity-mode MODE   kIntensityNone, kIntensityUnit, kIntensity8Bit, kIntensity16Bit or\n"
     "                          kIntensitySigned (default: detected from the data)\n"
     "  --warn-gb N             watchdog: warn below N GiB free ... (default: 10)\n"
     "  --warn-fraction F       ... or below this share of the disk, whichever is smaller (default: 0.05)\n"
     "  --alert-gb N            watchdog: cancel below N GiB free ... (default: 2)\n"
     "  --alert-fraction F      ... or below this share of the disk, whichever is smaller (default: 0.01)\n"
     "  --guard-interval MS     watchdog: pause between looks at the disk (default: 1000)\n"
     "\n"
     "Exit status: 0 success, 1 failure (the log says why), 2 wrong arguments, 130 cancelled.\n",
     pcprep::runRun},
    {"info",
     "describe a cache folder, an HSPC data set, a LAS/LAZ/E57/RIEGL file or a node file (.pnt or .pnz)",
     "Usage: pcprep info DIR\n"
     "       pcprep info DATASET|DATASET/tree.hspc|DATASET/queryTree.hspc|FILE.hspc.pack\n"
     "       pcprep info FILE.las|FILE.laz|FILE.e57\n"
     "       pcprep info FILE.rdbx|project.rsp [--riegl-library FILE]\n"
     "       pcprep info FILE [--points N]\n"
     "\n"
     "For a cache folder: its kind, whether it is complete (from the key file), its size, the progress "
     "file's\n"
     "last word, the scans of its VRP and what its point folder holds; for an octree also its tree from the\n"
     "VRM: the depth, the nodes and points of each level, the leaves and their points, and the node files "
     "on\n"
     "disk in each form (PNZ and PNT).\n"
     "For an HSPC data set (a folder with tree files, one of its tree files, or a pack archive): the tree\n"
     "file's version, point count, origin, scale and box, its lods with their node counts, the node size, the\n"
     "attributes and the comment's JSON.\n"
     "For a LAS or LAZ file: every field of its header and variable length records, and the coordinate "
     "system\n"
     "as WKT.\n"
     "For an E57 file: its size and every element of its XML tree with type, range and value: the scans\n"
     "with their poses and point prototypes, the images and their representations.\n"
     "For a RIEGL project or RDB file: the metadata of each scan's RDB file, read through the RIEGL library;\n"
     "without the library, the message that says how to install it.\n"
     "For a node file: its transform, the point count, the integer and the real box, the ranges of colour,\n"
     "intensity and scan index, and which side files (classes, normals) lie beside it.\n"
     "\n"
     "  --points N             also list the first N points of a node file with all their fields\n"
     "  --riegl-library FILE   the RIEGL library (default: librdb.so on the library search path)\n",
     pcprep::runInfo},
    {"export",
     "write the points of a cache, node files, scan files or an HSPC data set to a PTS or LAZ file or an HSPC "
     "data set",
     "Usage: pcprep export DIR OUT [--depth D]\n"
     "       pcprep export SOURCE... OUT\n"
     "       pcprep export DATASET OUT.laz|OUT.pts [--box x0,y0,z0,x1,y1,z1] [--lod N] [--threads N]\n"
     "\n"
     "Writes points to OUT, a new file:\n"
     "  OUT.pts   text, \"x y z intensity r g b\" with 9 significant digits, the count on the first line\n"
     "  OUT.laz   LAZ 1.4, point format 7 with the normal in 4 extra bytes, on the first source's grid, so\n"
     "            that pcprep and the library read the normals back\n"
     "  OUT.hspc  an HSPC data set in a new folder OUT.hspc, on the first source's grid, with radius, colour,\n"
     "            intensity, scan index, and classes and normals where the sources have side files for them\n"
     "  OUT.hspc.pack  the same data set as one pack archive\n"
     "From a cache folder DIR (or its .vrm file): the points of its leaves, which are all points at full\n"
     "resolution; with --depth D those of the nodes at depth D (0 is the root) and of the leaves above it,\n"
     "the cache as a viewer shows it at that level of detail.\n"
     "From SOURCE files: node files .pnt or .pnz, or the per-scan point files in a cache's Data folder.\n"
     "From an HSPC DATASET (its folder, its queryTree.hspc or its pack archive): the points a query of it\n"
     "returns, to .pts or to .laz on the data set's grid; Ctrl-C stops the export and removes OUT.\n"
     "An existing OUT is never overwritten.\n"
     "\n"
     "  --depth D     export the tree of DIR down to depth D\n"
     "  --box B       only the points of DATASET inside the box x0,y0,z0,x1,y1,z1 (real units, inclusive)\n"
     "  --lod N       only the nodes of DATASET at lod N and coarser: the data set at that level of detail\n"
     "  --threads N   decoding threads of the query (default: all hardware threads)\n",
     pcprep::runExport},
    {"sample", "write the built-in sample (node file, PTS, LAS, PTX, E57; an outdoor LAS tile) into a folder",
     "Usage: pcprep sample FOLDER [--parts LIST] [--points N] [--scans K] [--ptx-points N]\n"
     "                     [--e57-points N] [--terrain-points N]\n"
     "\n"
     "Writes the built-in sample, a simulated terrestrial survey of a furnished room:\n"
     "  FOLDER/sample-room.pnt      a node file of 50000 points (millimetre grid) with its class and normal\n"
     "                              side files\n"
     "  FOLDER/pts/room-scan-K.pts  one PTS file per scanner position, \"x y z intensity r g b\" with the\n"
     "                              intensity from -2048 to 2047 and 8-bit colour; with several scans the "
     "last\n"
     "                              has no colour\n"
     "  FOLDER/las/room-tile.las    the room from a scanner under the ceiling, as a LAS 1.2 file of point\n"
     "                              format 3 (16-bit colour, classes)\n"
     "  FOLDER/ptx/room-scans.ptx   two structured scans from two positions, each in its own frame with its\n"
     "                              pose; the tripod's blind spot below each scanner is missing\n"
     "  FOLDER/e57/room-project.e57 the same two stations as an E57 project: spherical coordinates with row\n"
     "                              and column indices, the blind spot as records with a direction only, "
     "and\n"
     "                              a spherical camera picture per station that sees the floor below it\n"
     "Only with --parts terrain, an outdoor tile for benchmarks:\n"
     "  FOLDER/las/terrain-tile.las an airborne survey of 500 x 500 m of rolling country with fields, a "
     "road,\n"
     "                              a village (flat and pitched roofs, walls seen only by slanted pulses) "
     "and\n"
     "                              trees alone and in woods; four overlapping flight strips, first and "
     "second\n"
     "                              returns, GPS time, colour, intensity and the classes 2 ground, 5 high\n"
     "                              vegetation and 6 building; LAS 1.2 point format 3 on a centimetre grid "
     "in\n"
     "                              UTM zone 32N, written as the survey goes, so any size fits in memory\n"
     "The folder is created if it is missing; an earlier sample in it is replaced.\n"
     "\n"
     "  --parts LIST       what to write, of node, pts, las, ptx, e57 and terrain (default:\n"
     "                     node,pts,las,ptx,e57),\n"
     "                     e.g. --parts pts,ptx\n"
     "  --points N         points of the PTS project, all scans together (default: 300000)\n"
     "  --scans K          scanner positions of the PTS project, 1 to 5 (default: 3)\n"
     "  --ptx-points N     points of the PTX file, both scans together (default: 2000000)\n"
     "  --e57-points N     records of the E57 project, both scans together (default: 1000000)\n"
     "  --terrain-points N points of the outdoor tile, exactly (default: 2000000)\n",
     pcprep::runSample},
    {"compress", "compress the node files of a cache, or write the .pnz twin of a node file",
     "Usage: pcprep compress DIR [--threads N]\n"
     "       pcprep compress NODE.pnt [--replace]\n"
     "\n"
     "For a cache folder DIR (or its .vrm file): turns every plain node file (.pnt) of the tree in "
     "DIR/Data,\n"
     "and every file of removed points (_rm.pnt), into its compressed form (.pnz), and removes the plain "
     "one.\n"
     "Every node is checked first: a node without its file, or with both forms, stops the work before any\n"
     "file is touched. Prints the files and bytes before and after.\n"
     "For a node file: writes NODE.pnz beside NODE.pnt, the same points, byte planes deflated.\n"
     "Side files (classes, normals) stay as they are.\n"
     "\n"
     "  --threads N  files converted at once (default: all hardware threads)\n"
     "  --replace    remove NODE.pnt once NODE.pnz is written\n",
     pcprep::runCompress},
    {"decompress", "decompress the node files of a cache, or write the .pnt twin of a node file",
     "Usage: pcprep decompress DIR [--threads N]\n"
     "       pcprep decompress NODE.pnz [--replace]\n"
     "\n"
     "The reverse of compress: every .pnz node file of the cache in DIR becomes a .pnt, or NODE.pnt is\n"
     "written beside NODE.pnz. Side files stay as they are.\n"
     "\n"
     "  --threads N  files converted at once (default: all hardware threads)\n"
     "  --replace    remove NODE.pnz once NODE.pnt is written\n",
     pcprep::runDecompress},
    {"verify", "check that a finished cache or an HSPC data set is whole: every node, point and file",
     "Usage: pcprep verify DIR\n"
     "       pcprep verify DATASET|FILE.hspc.pack\n"
     "\n"
     "Checks the finished octree cache in DIR (or given by its .vrm file) and prints each problem found:\n"
     "  - every node of the VRM has its .pnz file in DIR/Data, holding as many points as the VRM says, each\n"
     "    inside the node's box in the VRM;\n"
     "  - DIR/Data holds no plain node file (.pnt), no temporary file of a run (-temp.pnt, -temp.meta, "
     ".tmp)\n"
     "    and no node file the VRM does not name; class and normal side files only when the root is the\n"
     "    only node;\n"
     "  - the key file is complete, as the last step of a run leaves it.\n"
     "Ends with \"cache is sound: N nodes, M points in K leaves\" or the number of problems.\n"
     "For an HSPC data set: every node of the full tree (queryTree.hspc) that holds points has its blob, whose\n"
     "header agrees with the tree (point count, lod, place, attributes) and which decodes whole; tree.hspc\n"
     "has the same nodes per lod and hspcInfo.json is the tree's JSON. Ends with \"data set is sound: ...\".\n"
     "\n"
     "Exit status: 0 sound, 1 problems found, 2 wrong arguments.\n",
     pcprep::runVerify},
    // Joining HSPC data sets.
    {"merge", "join HSPC data sets on one grid (tiles of a survey) into one, without sorting again",
     "Usage: pcprep merge [OPTIONS] OUT DATASET...\n"
     "\n"
     "Joins the DATASETs (folders with queryTree.hspc, tree files, or .hspc.pack archives) into one data set\n"
     "in the folder OUT, which must be new or empty. The data sets must lie on one grid: the origin, scale\n"
     "and stored attributes of the first one. Their nodes are taken over as sorted runs, so no point is\n"
     "sorted again; a data set that does not fit is named with the reason, and nothing is merged.\n"
     "Ctrl-C cancels the merge.\n"
     "\n"
     "  --threads N     worker threads (default: all hardware threads)\n"
     "  --memory-mb N   memory budget of the merge (default: 10240)\n"
     "  --pack          write the data set as one archive, OUT/tree.hspc.pack\n"
     "\n"
     "Exit status: 0 success, 1 failure, 2 wrong arguments, 130 cancelled.\n",
     pcprep::runMerge},
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
        std::fprintf(stderr, "pcprep %s: %s\n", command->name, pc_preprocess::logText(e, "\n    ").c_str());
        return 1;
    }
}
