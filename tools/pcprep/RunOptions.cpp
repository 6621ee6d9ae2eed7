#include "pcprep/RunOptions.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

#include <filesystem>

#include "pcprep/ArgumentParser.h"
#include "pcprep/HspcDataSet.h"

namespace pcprep
{

namespace
{

using pc_preprocess::EIntensityMode;
using pc_preprocess::ERgbMode;

template <typename Mode>
struct ModeName
{
    const char* name;
    Mode mode;
};

const ModeName<ERgbMode> kRgbModes[] = {{"kRgbNone", pc_preprocess::kRgbNone},
                                        {"kRgb16Bit", pc_preprocess::kRgb16Bit},
                                        {"kRgb8Bit", pc_preprocess::kRgb8Bit},
                                        {"kRgbBlack", pc_preprocess::kRgbBlack},
                                        {"kRgbFromIntensity", pc_preprocess::kRgbFromIntensity}};
const ModeName<EIntensityMode> kIntensityModes[] = {{"kIntensityNone", pc_preprocess::kIntensityNone},
                                                    {"kIntensityUnit", pc_preprocess::kIntensityUnit},
                                                    {"kIntensity8Bit", pc_preprocess::kIntensity8Bit},
                                                    {"kIntensity16Bit", pc_preprocess::kIntensity16Bit},
                                                    {"kIntensitySigned", pc_preprocess::kIntensitySigned}};

template <typename Mode, size_t N>
Mode modeByName(const std::string& option, const std::string& text, const ModeName<Mode> (&names)[N])
{
    std::string known;
    for (const auto& entry : names)
    {
        if (text == entry.name)
            return entry.mode;
        known += std::string(known.empty() ? "" : ", ") + entry.name;
    }
    throw UsageError("option " + option + " takes one of " + known + ", not '" + text + "'");
}

double positiveNumber(const std::string& option, const std::string& text)
{
    char* end = nullptr;
    errno = 0;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno == ERANGE || !std::isfinite(value) || !(value > 0.0))
        throw UsageError("option " + option + " needs a positive number, not '" + text + "'");
    return value;
}

}  // namespace

RunOptions parseRunOptions(const Arguments& arguments)
{
    const ParsedArguments parsed(arguments, {{"--cache", true},
                                             {"--name", true},
                                             {"--scale", true},
                                             {"--input-scale", true},
                                             {"--threads", true},
                                             {"--max-image-pixels", true},
                                             {"--convert-only", false},
                                             {"--no-panorama-style", false},
                                             {"--hspc", false},
                                             {"--pack", false},
                                             {"--normals", false},
                                             {"--local-frame", false},
                                             {"--riegl-library", true},
                                             {"--columns", true},
                                             {"--delimiter", true},
                                             {"--skip-prefix", true},
                                             {"--rgb-mode", true},
                                             {"--intensity-mode", true},
                                             {"--warn-gb", true},
                                             {"--warn-fraction", true},
                                             {"--alert-gb", true},
                                             {"--alert-fraction", true},
                                             {"--guard-interval", true}});
    RunOptions options;
    options.cacheFolder = parsed.text("--cache", "");
    if (options.cacheFolder.empty())
        throw UsageError("--cache DIR is required");
    options.inputs = parsed.positional();
    if (options.inputs.empty())
        throw UsageError("expected at least one INPUT file");
    // An HSPC data set in a folder enters the run through its full tree file, which the importer reads.
    for (std::string& input : options.inputs)
        if (std::filesystem::is_directory(input) && namesHspcDataSet(input))
            input = (std::filesystem::path(input) / "queryTree.hspc").string();
    options.name = parsed.text("--name", options.name);
    if (options.name.empty() || options.name.find('/') != std::string::npos)
        throw UsageError("--name takes a file name without folders");
    if (parsed.has("--scale"))
        options.scale = positiveNumber("--scale", parsed.text("--scale", ""));
    if (parsed.has("--input-scale"))
        options.inputScale = positiveNumber("--input-scale", parsed.text("--input-scale", ""));
    options.threads = parsed.threadCount();
    options.maxImagePixels = parsed.number("--max-image-pixels", options.maxImagePixels);
    options.convertOnly = parsed.has("--convert-only");
    options.noPanoramaStyle = parsed.has("--no-panorama-style");
    options.hspc = parsed.has("--hspc");
    options.pack = parsed.has("--pack");
    if (options.pack && !options.hspc)
        throw UsageError("--pack is for an HSPC data set: add --hspc");
    options.normals = parsed.has("--normals");
    options.localFrame = parsed.has("--local-frame");
    options.rieglLibrary = parsed.text("--riegl-library", "");
    options.columns = parsed.text("--columns", "");
    options.delimiter = parsed.text("--delimiter", "");
    options.skipPrefix = parsed.text("--skip-prefix", "");
    if (parsed.has("--rgb-mode"))
        options.colorMode.rgb = modeByName("--rgb-mode", parsed.text("--rgb-mode", ""), kRgbModes);
    if (parsed.has("--intensity-mode"))
        options.colorMode.intensity =
            modeByName("--intensity-mode", parsed.text("--intensity-mode", ""), kIntensityModes);
    options.warnGB = parsed.number("--warn-gb", options.warnGB);
    options.alertGB = parsed.number("--alert-gb", options.alertGB);
    if (parsed.has("--warn-fraction"))
        options.warnFraction = positiveNumber("--warn-fraction", parsed.text("--warn-fraction", ""));
    if (parsed.has("--alert-fraction"))
        options.alertFraction = positiveNumber("--alert-fraction", parsed.text("--alert-fraction", ""));
    options.guardIntervalMs = parsed.number("--guard-interval", options.guardIntervalMs);
    if (!(options.alertGB < options.warnGB && options.alertFraction < options.warnFraction &&
          options.warnFraction < 1.0 && options.alertGB > 1))
        throw UsageError(
            "the watchdog needs 1 < --alert-gb < --warn-gb and --alert-fraction < --warn-fraction < 1");
    return options;
}

}  // namespace pcprep
