// SPDX-License-Identifier: Apache-2.0
#include "harness/TempDirectory.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace sealscope {

TempDirectory::TempDirectory()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "sealscope-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make a directory like " + pattern);
    path_ = pattern;
}

TempDirectory::~TempDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TempDirectory::write(std::string_view name, DataView bytes) const
{
    writeFile(path_ / name, bytes);
    return file(name);
}

Data readFile(const std::filesystem::path& path)
{
    std::ifstream stream(path, std::ios::binary);
    if (!stream) throw std::runtime_error("cannot read " + path.string());
    return Data(std::vector<std::uint8_t>(std::istreambuf_iterator<char>(stream), {}));
}

void writeFile(const std::filesystem::path& path, DataView bytes)
{
    std::ofstream stream(path, std::ios::binary);
    stream.write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    if (!stream.flush()) throw std::runtime_error("cannot write " + path.string());
}

}  // namespace sealscope
