#include "importers/e57/Extensions.h"

#include <algorithm>
#include <initializer_list>
#include <optional>
#include <string_view>

#include "e57/XmlSection.h"

namespace pc_preprocess
{

namespace
{

// The surface normals extension goes by two document names.
constexpr std::string_view kNormalsUris[] = {"http://www.libe57.org/E57_NOR_surface_normals.txt",
                                             "http://www.libe57.org/E57_EXT_surface_normals.txt"};
constexpr std::string_view kClassificationUris[] = {"http://www.libe57.org/E57_EXT_classification.txt"};

template <size_t N>
std::optional<std::string> prefixFor(const std::vector<e57::NamespaceBinding>& namespaces,
                                     const std::string_view (&uris)[N], std::string_view usualPrefix)
{
    for (const e57::NamespaceBinding& binding : namespaces)
        if (std::find(std::begin(uris), std::end(uris), binding.uri) != std::end(uris))
            return binding.prefix;
    const bool usualTaken =
        std::any_of(namespaces.begin(), namespaces.end(),
                    [&](const e57::NamespaceBinding& b) { return b.prefix == usualPrefix; });
    if (usualTaken)
        return std::nullopt;
    return std::string(usualPrefix);
}

}  // namespace

ExtensionFields extensionFields(const std::vector<e57::NamespaceBinding>& namespaces)
{
    ExtensionFields fields;
    if (const auto normals = prefixFor(namespaces, kNormalsUris, "nor"))
        fields.normals = {*normals + ":normalX", *normals + ":normalY", *normals + ":normalZ"};
    if (const auto classes = prefixFor(namespaces, kClassificationUris, "class"))
        fields.classification = *classes + ":classification";
    return fields;
}

}  // namespace pc_preprocess
