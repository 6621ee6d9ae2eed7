#pragma once

#include <array>
#include <string>
#include <vector>

namespace e57
{
struct NamespaceBinding;
}

namespace pc_preprocess
{

// The prototype fields of the extensions the importer reads, with the prefixes that the file binds to their
// namespace URIs: "nor:normalX" in most files, "n:normalX" in a file that binds "n" to the normals' URI.
// A field is empty when the file has no prefix for its extension.
struct ExtensionFields
{
    std::array<std::string, 3> normals;
    std::string classification;
};

// A file that uses an extension's usual prefix ("nor", "class") without declaring it still has the extension,
// as long as it does not bind that prefix to another URI.
ExtensionFields extensionFields(const std::vector<e57::NamespaceBinding>& namespaces);

}  // namespace pc_preprocess
