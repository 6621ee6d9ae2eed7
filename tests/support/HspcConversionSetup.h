// A conversion set up the way the converter's tests need it: valid records into a fresh temporary folder
// with every logger captured, and importers of generated raw records.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "hspc/convert/BinaryRecordImporter.h"
#include "hspc/convert/Converter.h"
#include "hspc/convert/RecordSource.h"
#include "hspc/format/Config.h"
#include "support/LittleEndianBytes.h"
#include "support/MessageLog.h"
#include "support/TempFolder.h"

namespace pcp_test
{

using namespace HSPC;
namespace fs = std::filesystem;

struct ProgressReport
{
    int percent;
    std::string message;
    friend bool operator==(const ProgressReport&, const ProgressReport&) = default;
};

// Valid records for a conversion into folders "out" and "tmp" of a fresh temporary folder, with every logger
// captured.
struct ConversionSetup
{
    pcp_test::TempFolder folder;
    BasicConfig basic;
    AdvancedConfig advanced;
    PointCloudEncodingConfig encoding;
    MessageLog errors;
    MessageLog warnings;
    MessageLog infos;
    std::vector<ProgressReport> progress;

    ConversionSetup()
    {
        fs::create_directory(folder.path() / "out");
        fs::create_directory(folder.path() / "tmp");
        basic.attributes = {{AttributeType::I32, AttributeRole::X, "X"},
                            {AttributeType::I32, AttributeRole::Y, "Y"},
                            {AttributeType::I32, AttributeRole::Z, "Z"},
                            {AttributeType::U16, AttributeRole::INTENSITY, "Intensity"}};
        basic.scale = {0.001, 0.001, 0.001};
        basic.outputPath = (folder.path() / "out").string();
        basic.tempPath = (folder.path() / "tmp").string();
        advanced.workerCount = 2;
        advanced.targetMemory = 64u << 20;
        advanced.errorLogger = errors.logger();
        advanced.warningLogger = warnings.logger();
        advanced.infoLogger = infos.logger();
        advanced.progressLogger = [this](int percent, const std::string& message) {
            progress.push_back({percent, message});
        };
    }

    std::unique_ptr<Converter> converter() const
    {
        return std::make_unique<Converter>(basic, advanced, encoding);
    }
};

// Raw records of x, y, z in millimetres (I32), 16-bit colours and an intensity, spread over a few metres.
inline constexpr const char* kRecordDescription = R"({"attribute-description": [
    {"attribute": {"name": "X", "role": "X", "type": "I32"}, "scale": 0.001},
    {"attribute": {"name": "Y", "role": "Y", "type": "I32"}, "scale": 0.001},
    {"attribute": {"name": "Z", "role": "Z", "type": "I32"}, "scale": 0.001},
    {"attribute": {"name": "Red", "role": "R", "type": "U16"}},
    {"attribute": {"name": "Green", "role": "G", "type": "U16"}},
    {"attribute": {"name": "Blue", "role": "B", "type": "U16"}},
    {"attribute": {"name": "Intensity", "role": "INTENSITY", "type": "U16"}}]})";

inline std::shared_ptr<std::vector<uint8_t>> recordsFrom(uint64_t first, uint64_t count)
{
    auto bytes = std::make_shared<std::vector<uint8_t>>();
    for (uint64_t point = first; point < first + count; ++point)
    {
        for (unsigned axis = 0; axis < 3; ++axis)
            pcp_test::put(*bytes, int32_t(point * (7919 + axis * 104729) % 5000003));
        for (unsigned channel = 0; channel < 4; ++channel)
            pcp_test::put(*bytes, uint16_t(point * (channel + 3)));
    }
    return bytes;
}

// A point of recordsFrom as a data set holds it: its cell, colours cut to their high byte (the converter
// stores 8-bit colours) and intensity.
struct StoredPoint
{
    std::array<int64_t, 3> cell{};
    std::array<uint8_t, 3> color{};
    uint16_t intensity = 0;
    friend auto operator<=>(const StoredPoint&, const StoredPoint&) = default;
};

// The points of recordsFrom(0, count), sorted, as StoredPoints.
inline std::vector<StoredPoint> storedPointsFrom(uint64_t count)
{
    std::vector<StoredPoint> points;
    for (uint64_t point = 0; point < count; ++point)
    {
        StoredPoint stored;
        for (unsigned axis = 0; axis < 3; ++axis)
            stored.cell[axis] = int64_t(point * (7919 + axis * 104729) % 5000003);
        for (unsigned channel = 0; channel < 3; ++channel)
            stored.color[channel] = uint8_t(uint16_t(point * (channel + 3)) >> 8);
        stored.intensity = uint16_t(point * 6);
        points.push_back(stored);
    }
    std::sort(points.begin(), points.end());
    return points;
}

inline EncodingAttribute encoded(uint8_t type, uint8_t role, std::string name, std::optional<double> defaultValue = {})
{
    EncodingAttribute attribute;
    attribute.attribute = Attribute{type, role, std::move(name)};
    attribute.defaultValue = defaultValue;
    return attribute;
}

// The converter's records for the importers below: the importers deliver the encoded layout, a millimetre
// grid with 8-bit colours, so the input attributes are the encoded ones. Small batches make many of them.
inline void convertRecords(ConversionSetup& setup)
{
    setup.basic.attributes = {{AttributeType::M96, AttributeRole::POSITION, "POSITION"},
                              {AttributeType::U8, AttributeRole::R, "Red"},
                              {AttributeType::U8, AttributeRole::G, "Green"},
                              {AttributeType::U8, AttributeRole::B, "Blue"},
                              {AttributeType::U16, AttributeRole::INTENSITY, "Intensity"}};
    setup.advanced.batchSize = 64 * 1024;
    setup.advanced.reservedThreads = 2;
}

// An importer of raw records in the layout of kRecordDescription, delivering the converter's encoded layout.
inline std::shared_ptr<Importer> recordImporterOf(const ConversionSetup& setup,
                                                  std::shared_ptr<std::vector<uint8_t>> records,
                                                  const LogFunction& errorLogger)
{
    EncodingTarget target;
    target.attributes = {encoded(AttributeType::M96, AttributeRole::POSITION, "POSITION"),
                         encoded(AttributeType::U8, AttributeRole::R, "Red", 255.0),
                         encoded(AttributeType::U8, AttributeRole::G, "Green", 255.0),
                         encoded(AttributeType::U8, AttributeRole::B, "Blue", 255.0),
                         encoded(AttributeType::U16, AttributeRole::INTENSITY, "Intensity")};
    target.origin = setup.basic.origin;
    target.scale = setup.basic.scale;
    return BinaryRecordImporter::create(kRecordDescription, makeMemorySource(std::move(records)), target,
                                        EncodingFlags{}, errorLogger);
}

inline std::shared_ptr<Importer> recordImporter(const ConversionSetup& setup, uint64_t first, uint64_t count,
                                                const LogFunction& errorLogger)
{
    return recordImporterOf(setup, recordsFrom(first, count), errorLogger);
}

}  // namespace pcp_test
