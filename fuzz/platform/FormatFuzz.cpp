// SPDX-License-Identifier: Apache-2.0
// A format from a translation file, filled with arguments of every kind.
#include "fuzz/Require.h"
#include "platform/LocalizedFormat.h"

#include <algorithm>

using namespace sealscope;

namespace {

void check(std::string_view format, std::initializer_list<FormatArgument> arguments)
{
    const auto text = fillFormat(format, arguments);
    const auto signs = std::ranges::count(format, '%');
    if (!text) {
        require(signs > 0 || arguments.size() > 0, "a plain text fits no argument");
        return;
    }
    require(arguments.size() <= static_cast<std::size_t>(signs), "each argument is used");
    // Every conversion has a sign, and is no wider than 99 characters.
    require(text->size() <= format.size() + static_cast<std::size_t>(signs) * 99, "a text stays in proportion to its format");
    require(signs > 0 || *text == format, "a plain text stays as it is");
    require(fillLocalizedFormat(format, "%u %@", arguments) == *text, "a translation that fits is taken");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view format(reinterpret_cast<const char*>(data), size);
    check(format, {});
    check(format, {std::uint64_t{0x17}});
    check(format, {"text"});
    check(format, {"Alert", std::uint64_t{21}});
    check(format, {~std::uint64_t{0}, "Certificate", std::uint64_t{1}});
    return 0;
}
